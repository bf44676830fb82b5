"""The demo: what the system does, shown on traffic that it checks packet by packet."""
