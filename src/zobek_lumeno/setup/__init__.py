"""The host package's installer."""
