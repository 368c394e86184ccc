/* A library with one known symbol, for the binding tests. */
int ostrel_test_answer(void) { return 42; }
