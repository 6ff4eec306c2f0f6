"""Stand-in for the host package: the version the embedded skills are stamped with."""

__version__ = "1.5.0"
