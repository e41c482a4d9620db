#include "support/memmap.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>

#include "platform/sys.h"
#include "support/print.h"

constexpr char kPrintFile[] = "memmap";

namespace {

constexpr char kDevice[] = "/dev/mem";
constexpr u32 kPage = 4096;
constexpr u64 kAddressEnd = u64{1} << 32;

struct Mapping {
  u32 phys_base;  //< start of a page
  u8* virt;
  u32 length;  //< bytes, whole pages
  u32 refcount;

  bool holds(u64 phys, u64 size) const { return phys_base <= phys && phys + size <= u64{phys_base} + length; }
  // Deliberate: the address one past the end is accepted as well.
  bool holds(const u8* address) const { return virt <= address && address <= virt + length; }
};

// The live mappings, in order of creation.
std::array<Mapping, 64> mappings;
Mapping* mappings_end = mappings.data();

int device_fd = -1;

u8* map_pages(u32 base, u64 length) {
  if (base + length > kAddressEnd || length > UINT32_MAX) return nullptr;
  void* virt = sys::mmap(nullptr, static_cast<size_t>(length), PROT_READ | PROT_WRITE, MAP_SHARED, device_fd,
                         static_cast<off_t>(base));
  return virt == MAP_FAILED ? nullptr : static_cast<u8*>(virt);
}

}  // namespace

void* memmap(u32 phys, u32 size) {
  if (size == 0) {
    PRINT_ERROR_AT(59, "memmap():size can't be zero!\n");
    return nullptr;
  }
  Mapping* shared =
      std::find_if(mappings.data(), mappings_end, [&](const Mapping& m) { return m.holds(phys, size); });
  if (shared != mappings_end) {
    ++shared->refcount;
    return shared->virt + (phys - shared->phys_base);
  }
  if (device_fd < 0) device_fd = sys::open(kDevice, O_RDWR | O_SYNC | O_CLOEXEC);
  if (device_fd < 0) {
    PRINT_ERROR_AT(84, "memmap():open %s error!\n", kDevice);
    return nullptr;
  }
  const u32 offset = phys % kPage;
  const u32 base = phys - offset;
  const u64 length = (u64{offset} + size + kPage - 1) / kPage * kPage;
  u8* virt = map_pages(base, length);
  if (virt == nullptr) {
    PRINT_ERROR_AT(99, "memmap():mmap @ 0x%x error!\n", base);
    return nullptr;
  }
  if (mappings_end == mappings.data() + mappings.size()) {
    // Deliberate: the pages stay mapped.
    PRINT_ERROR_AT(107, "memmap():malloc new node failed!\n");
    return nullptr;
  }
  *mappings_end++ = {base, virt, static_cast<u32>(length), 1};
  return virt + offset;
}

int memunmap(void* virt) {
  const auto* address = static_cast<const u8*>(virt);
  Mapping* found =
      std::find_if(mappings.data(), mappings_end, [&](const Mapping& m) { return m.holds(address); });
  if (found == mappings_end) {
    if (mappings_end == mappings.data()) {
      PRINT_ERROR_AT(156, "memunmap(): address have not been mmaped!\n");
    } else {
      PRINT_INFO_AT(200, "memunmap(): address have not been mmaped!\n");
    }
    return -1;
  }
  if (--found->refcount > 0) return 0;
  const Mapping unused = *found;
  mappings_end = std::move(found + 1, mappings_end, found);
  if (sys::munmap(unused.virt, unused.length) < 0) {
    PRINT_ERROR_AT(187, "memunmap(): munmap failed!\n");
  }
  return 0;
}
