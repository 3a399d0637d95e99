/* The other units of this program are the test: they compile or they do not. */
int main(void) {
  return 0;
}
