// One received buffer of a route dump. The buffer ends right at a page the
// process may not read, and the slack before that page is poisoned, so a
// read past what was received faults in the parser or in libmnl, which is
// not instrumented. Each route found needs bytes of its own, and a buffer
// that parses says so the same way twice.
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "inventory/route_dump.h"

namespace {

// Two pages for a buffer and a third, never readable, after them; a
// larger input is cut to fit.
class GuardedBuffer {
 public:
  GuardedBuffer() {
    page_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* p = mmap(nullptr, 3 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) std::abort();
    base_ = static_cast<std::uint8_t*>(p);
    if (mprotect(base_ + 2 * page_, page_, PROT_NONE) != 0) std::abort();
  }
  std::size_t capacity() const { return 2 * page_ - 3; }

  // The bytes at a netlink-aligned address, ending as near the guard page
  // as that allows.
  const std::uint8_t* place(const std::uint8_t* data, std::size_t size) {
    std::uint8_t* const end = base_ + 2 * page_;
    ASAN_UNPOISON_MEMORY_REGION(base_, 2 * page_);
    std::uint8_t* start = end - ((size + 3) & ~std::size_t{3});
    std::memcpy(start, data, size);
    ASAN_POISON_MEMORY_REGION(base_, static_cast<std::size_t>(start - base_));
    ASAN_POISON_MEMORY_REGION(start + size, static_cast<std::size_t>(end - (start + size)));
    return start;
  }

 private:
  std::size_t page_ = 0;
  std::uint8_t* base_ = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static GuardedBuffer buffer;
  if (size > buffer.capacity()) size = buffer.capacity();
  const std::uint8_t* buf = buffer.place(data, size);

  std::vector<DefaultRoute> routes;
  const auto status = route_dump::parse(buf, size, 0, 0, routes);
  if (status != route_dump::Status::More && status != route_dump::Status::Done &&
      status != route_dump::Status::Error)
    __builtin_trap();
  // A route is at least a message header and a route header; each next hop
  // of a multipath route at least its own header.
  if (routes.size() > size / 8) __builtin_trap();

  std::vector<DefaultRoute> again;
  if (route_dump::parse(buf, size, 0, 0, again) != status) __builtin_trap();
  if (again.size() != routes.size()) __builtin_trap();
  for (std::size_t i = 0; i < routes.size(); ++i)
    if (again[i].oif != routes[i].oif || again[i].gateway != routes[i].gateway) __builtin_trap();
  return 0;
}
