// Carries the headers that all test programs share; has no tests of its own.
int main() {
  return 0;
}
