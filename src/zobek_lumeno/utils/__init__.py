"""Utilities of the host package."""
