// A library without the entry points.
extern "C" int lunetFakeNothing() {
  return 0;
}
