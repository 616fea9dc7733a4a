// Not yet implemented.
