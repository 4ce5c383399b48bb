// Callbacks object: being written.
