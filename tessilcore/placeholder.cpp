// Removed once the host sources land.
