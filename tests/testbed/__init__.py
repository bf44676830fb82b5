"""Throw-away hosts, a daemon between them, and eyes on every wire. Used by the demo and by the system tests."""
