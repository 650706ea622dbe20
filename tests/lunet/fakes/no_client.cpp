// A library that gives no client.
extern "C" void* CreateInstance(const char*) {
  return nullptr;
}
extern "C" void DestoryInstance(const char*, void*) {}
