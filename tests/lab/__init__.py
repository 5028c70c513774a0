"""A throw-away machine for tests and the demo: namespaces, a bridge, a configuration server, the daemon, frames."""
