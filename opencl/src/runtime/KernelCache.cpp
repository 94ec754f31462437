// An entry: a mark, sizes of key and binary, a sum over both, the key, the binary. The key stands
// in it whole, so a collision of file names cannot hand out another kernel.
#include "runtime/KernelCache.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <system_error>

namespace ravu::opencl {

namespace fs = std::filesystem;

namespace {

// No kernel comes near: a larger entry is damaged, and would be read into memory first.
constexpr uint64_t kMostBytes = 64u << 20;

constexpr std::array<char, 8> kMark = {'r', 'a', 'v', 'u', 'c', 'l', '0', '1'};

struct EntryHeader {
  std::array<char, 8> mark = kMark;
  uint64_t key_size = 0;
  uint64_t binary_size = 0;
  uint64_t sum = 0;
};

// FNV-1a, 64 bits.
uint64_t hash_of(const void* data, size_t size, uint64_t hash = 0xcbf29ce484222325u) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < size; ++i) hash = (hash ^ bytes[i]) * 0x100000001b3u;
  return hash;
}

uint64_t sum_of(const std::string& key, const std::vector<unsigned char>& binary) {
  return hash_of(binary.data(), binary.size(), hash_of(key.data(), key.size()));
}

std::string temporary_suffix() {
  static std::atomic<unsigned> counter{0};
  std::random_device random;
  char text[64];
  std::snprintf(text, sizeof(text), ".%08x%08x.%u", random(), random(), counter.fetch_add(1));
  return text;
}

// Binaries are run: what others could have put there is left alone, and so is a pipe, which would
// be waited for.
bool is_trustworthy(const fs::path& entry) {
  std::error_code error;
  const fs::file_status status = fs::status(entry, error);
  if (error || !fs::is_regular_file(status)) return false;
#ifdef _WIN32
  return true;  // the user's folder has a list of its own of who may write
#else
  return (status.permissions() & (fs::perms::group_write | fs::perms::others_write)) ==
         fs::perms::none;
#endif
}

// Only the user's own: its files are run.
void create_private_folder(const fs::path& folder) {
  std::error_code ignored;
  if (fs::create_directories(folder, ignored)) {
    fs::permissions(folder, fs::perms::owner_all, ignored);
  }
}

}  // namespace

fs::path KernelCache::users_folder() {
  const auto variable = [](const char* name) {
    const char* value = std::getenv(name);
    return fs::path(value == nullptr ? "" : value);
  };
#ifdef _WIN32
  fs::path base = variable("LOCALAPPDATA");
#else
  fs::path base = variable("XDG_CACHE_HOME");
  if (!base.is_absolute()) base = variable("HOME") / ".cache";
#endif
  if (!base.is_absolute()) return {};
  return base / "ravu" / "opencl";
}

fs::path KernelCache::entry(const std::string& key) const {
  char name[32];
  std::snprintf(name, sizeof(name), "%016llx.bin",
                static_cast<unsigned long long>(hash_of(key.data(), key.size())));
  return folder_ / name;
}

std::optional<std::vector<unsigned char>> KernelCache::load(const std::string& key) const {
  if (folder_.empty() || !is_trustworthy(entry(key))) return std::nullopt;
  std::ifstream file(entry(key), std::ios::binary | std::ios::ate);
  if (!file) return std::nullopt;
  const auto file_size = static_cast<uint64_t>(file.tellg());
  file.seekg(0);
  EntryHeader header;
  if (!file.read(reinterpret_cast<char*>(&header), sizeof(header))) return std::nullopt;
  if (header.mark != kMark || header.key_size != key.size()) return std::nullopt;
  if (header.binary_size > kMostBytes ||
      file_size != sizeof(header) + header.key_size + header.binary_size) {
    return std::nullopt;
  }
  std::string found_key(key.size(), '\0');
  std::vector<unsigned char> binary(static_cast<size_t>(header.binary_size));
  file.read(found_key.data(), static_cast<std::streamsize>(found_key.size()));
  file.read(reinterpret_cast<char*>(binary.data()), static_cast<std::streamsize>(binary.size()));
  if (!file || found_key != key || sum_of(key, binary) != header.sum) return std::nullopt;
  return binary;
}

void KernelCache::store(const std::string& key, const std::vector<unsigned char>& binary) const {
  if (folder_.empty()) return;
  try {
    replace(key, binary);
  } catch (const std::exception&) {  // no memory or no random numbers: the kernel is there already
  }
}

void KernelCache::replace(const std::string& key, const std::vector<unsigned char>& binary) const {
  create_private_folder(folder_);
  std::error_code ignored;
  const fs::path wanted = entry(key);
  fs::path temporary = wanted;
  temporary += temporary_suffix();
  bool written = false;
  {
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    EntryHeader header;
    header.key_size = key.size();
    header.binary_size = binary.size();
    header.sum = sum_of(key, binary);
    file.write(reinterpret_cast<const char*>(&header), sizeof(header));
    file.write(key.data(), static_cast<std::streamsize>(key.size()));
    file.write(reinterpret_cast<const char*>(binary.data()),
               static_cast<std::streamsize>(binary.size()));
    file.close();
    written = file.good();
  }
  if (written) {
    // Whatever the process lets others do with its files.
    fs::permissions(temporary, fs::perms::owner_read | fs::perms::owner_write, ignored);
    fs::rename(temporary, wanted, ignored);
  }
  if (!written || ignored) fs::remove(temporary, ignored);
}

}  // namespace ravu::opencl
