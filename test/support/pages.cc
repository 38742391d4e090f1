#include "test/support/pages.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace vorn_test {

#ifdef _WIN32

size_t page_size() {
  SYSTEM_INFO system;
  GetSystemInfo(&system);
  return system.dwPageSize;
}

char* map_pages(size_t size) {
  return static_cast<char*>(VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
}

bool forbid_pages(char* start, size_t size) {
  DWORD before = 0;
  return VirtualProtect(start, size, PAGE_NOACCESS, &before) != 0;
}

void unmap_pages(char* start, size_t) {
  VirtualFree(start, 0, MEM_RELEASE);
}

#else

size_t page_size() {
  return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

char* map_pages(size_t size) {
  void* const start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return start == MAP_FAILED ? nullptr : static_cast<char*>(start);
}

bool forbid_pages(char* start, size_t size) {
  return mprotect(start, size, PROT_NONE) == 0;
}

void unmap_pages(char* start, size_t size) {
  munmap(start, size);
}

#endif

}  // namespace vorn_test
