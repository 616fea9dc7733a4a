// Filled in with the tests that use it.
