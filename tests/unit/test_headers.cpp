// Empty: what it is built with is the precompiled header of all unit tests.
