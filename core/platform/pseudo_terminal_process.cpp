// Filled in by the pseudo-terminal work.
