// Filled in by the viewer work.
