// Filled in by the unlock runner work.
