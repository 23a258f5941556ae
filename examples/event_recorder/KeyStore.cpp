// Key derivation by generation and the marker files that say which
// generation opens the recorder's database (see KeyStore.h for the scheme).
#include "KeyStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

namespace recorder {

namespace {

// Stands in for a secret that a camera keeps in secure storage.
constexpr char kDeviceSecret[] = "ipc_db event recorder example device secret";

uint64_t Fnv1a(const char* text) {
  uint64_t hash = 1469598103934665603ULL;
  for (const char* p = text; *p != '\0'; ++p) {
    hash ^= static_cast<unsigned char>(*p);
    hash *= 1099511628211ULL;
  }
  return hash;
}

uint64_t SplitMix64(uint64_t* state) {
  uint64_t z = (*state += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

std::string ErrnoText(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

// Makes a rename inside `directory` durable.
void SyncDirectory(const std::string& directory) {
  int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

}  // namespace

std::string KeyForGeneration(unsigned int generation) {
  uint64_t state = Fnv1a(kDeviceSecret) ^ (0xD1B54A32D192ED03ULL * (generation + 1ULL));
  static const char kHex[] = "0123456789abcdef";
  std::string key;
  key.reserve(kKeyLength);
  while (key.size() < kKeyLength) {
    uint64_t word = SplitMix64(&state);
    for (int nibble = 0; nibble < 16; ++nibble) {
      key.push_back(kHex[(word >> (4 * nibble)) & 0xF]);
    }
  }
  return key;
}

KeyStore::KeyStore(std::string directory) : directory_(std::move(directory)) {
  if (directory_.empty() || directory_.back() != '/') directory_ += '/';
}

std::string KeyStore::CurrentPath() const { return directory_ + "key_generation"; }

std::string KeyStore::NextPath() const { return directory_ + "key_generation.next"; }

bool KeyStore::Load(KeyMarker* marker, std::string* error) const {
  *marker = KeyMarker();
  return ReadNumber(CurrentPath(), &marker->has_current, &marker->current, error) &&
         ReadNumber(NextPath(), &marker->has_next, &marker->next, error);
}

bool KeyStore::WriteCurrent(unsigned int generation, std::string* error) const {
  return WriteNumber(CurrentPath(), generation, error);
}

bool KeyStore::WriteNext(unsigned int generation, std::string* error) const {
  return WriteNumber(NextPath(), generation, error);
}

bool KeyStore::PromoteNext(std::string* error) const {
  if (std::rename(NextPath().c_str(), CurrentPath().c_str()) != 0) {
    *error = ErrnoText("cannot rename", NextPath());
    return false;
  }
  SyncDirectory(directory_);
  return true;
}

bool KeyStore::DropNext(std::string* error) const {
  if (unlink(NextPath().c_str()) != 0 && errno != ENOENT) {
    *error = ErrnoText("cannot remove", NextPath());
    return false;
  }
  SyncDirectory(directory_);
  return true;
}

bool KeyStore::ReadNumber(const std::string& path, bool* exists, unsigned int* value,
                          std::string* error) const {
  std::ifstream in(path);
  *exists = in.is_open();
  if (!*exists) return true;
  unsigned long number = 0;
  if (!(in >> number) || number > 1000000UL) {
    *error = "marker file " + path + " does not hold a key generation number";
    return false;
  }
  *value = static_cast<unsigned int>(number);
  return true;
}

bool KeyStore::WriteNumber(const std::string& path, unsigned int value,
                           std::string* error) const {
  const std::string temporary = path + ".tmp";
  int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) {
    *error = ErrnoText("cannot create", temporary);
    return false;
  }
  char text[32];
  int length = std::snprintf(text, sizeof(text), "%u\n", value);
  bool written = write(fd, text, static_cast<size_t>(length)) == length && fsync(fd) == 0;
  close(fd);
  if (!written || std::rename(temporary.c_str(), path.c_str()) != 0) {
    *error = ErrnoText("cannot write", path);
    unlink(temporary.c_str());
    return false;
  }
  SyncDirectory(directory_);
  return true;
}

}  // namespace recorder
