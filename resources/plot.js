// Filled in by the plot work.
