#include "platform/fsevents/mounts/MountSerials.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <vector>

namespace platform::fsevents {
namespace {

// The C library's headers may be older than the calls. Their numbers and layouts are the same on all machines that Linux has learnt since.
#ifdef SYS_statmount
constexpr long kStatMount = SYS_statmount;
#else
constexpr long kStatMount = 457;
#endif
#ifdef SYS_listmount
constexpr long kListMount = SYS_listmount;
#else
constexpr long kListMount = 458;
#endif

struct MountRequest {
  std::uint32_t size = sizeof(MountRequest);
  std::uint32_t spare = 0;
  std::uint64_t mount = 0;
  /// listmount: the last one seen. statmount: what is asked for.
  std::uint64_t parameter = 0;
};
constexpr std::uint64_t kRootOfNamespace = ~std::uint64_t{0};
constexpr std::uint64_t kIdsOfMount = 2;

struct MountAnswer {
  std::uint32_t size;
  std::uint32_t spare1;
  std::uint64_t mask;
  std::array<std::uint32_t, 2> device;
  std::uint64_t magic;
  std::uint32_t flags;
  std::uint32_t type;
  std::uint64_t serial;
  std::uint64_t parentSerial;
  std::uint32_t id;
  std::uint32_t parentId;
  /// The kernel's own structure is longer, and it fills in what there is room for.
  std::array<std::uint64_t, 56> spare2;
};
static_assert(sizeof(MountAnswer) == 512);

/// Nothing when the kernel refuses.
std::optional<std::vector<std::uint64_t>> listSerials() {
  std::vector<std::uint64_t> serials;
  std::array<std::uint64_t, 512> piece{};
  for (MountRequest request{.mount = kRootOfNamespace};;) {
    const long count = ::syscall(kListMount, &request, piece.data(), piece.size(), 0U);
    if (count < 0) return std::nullopt;
    serials.insert(serials.end(), piece.begin(), piece.begin() + count);
    if (static_cast<std::size_t>(count) < piece.size()) return serials;
    request.parameter = serials.back();
  }
}

/// Nothing when the mount has gone meanwhile.
std::optional<int> idOf(std::uint64_t serial) {
  const MountRequest request{.mount = serial, .parameter = kIdsOfMount};
  MountAnswer answer{};
  if (::syscall(kStatMount, &request, &answer, sizeof answer, 0U) != 0 || (answer.mask & kIdsOfMount) == 0) return std::nullopt;
  return static_cast<int>(answer.id);
}

}  // namespace

bool MountSerials::read() {
  byId_.clear();
  const auto serials = listSerials();
  std::map<std::uint64_t, int> known;
  known.swap(ids_);
  if (!serials) return false;
  for (const std::uint64_t serial : *serials) {
    const auto found = known.find(serial);
    const std::optional<int> id = found != known.end() ? found->second : idOf(serial);
    if (!id) continue;
    ids_.emplace(serial, *id);
    byId_[*id] = serial;
  }
  return true;
}

std::uint64_t MountSerials::of(int id) const {
  const auto found = byId_.find(id);
  return found == byId_.end() ? 0 : found->second;
}

}  // namespace platform::fsevents
