// Module entry: filled in with the callbacks object.
