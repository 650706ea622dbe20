// A library that gives something it cannot take back.
extern "C" void* CreateInstance(const char*) {
  static int client = 0;
  return &client;
}
