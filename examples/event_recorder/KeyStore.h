// Which key opens the recorder's database.
//
// The recorder rotates its key on every run (Db::reEncryptDB). Keys are
// numbered by generation and derived from a device secret; the data
// directory holds a small marker file, "key_generation", with the number of
// the key that opens the database now. A rotation first writes the next
// number to "key_generation.next", then re-keys, then renames the ".next"
// file over the marker, so an interrupted rotation leaves both numbers on
// disk and the next run tries the newer key first.
//
// The derivation here is for the example only: a camera would keep its
// device secret in secure storage and derive keys with a proper KDF. The key
// itself is never printed.
#ifndef IPC_DB_EXAMPLES_EVENT_RECORDER_KEYSTORE_H_
#define IPC_DB_EXAMPLES_EVENT_RECORDER_KEYSTORE_H_

#include <string>

namespace recorder {

constexpr unsigned int kKeyLength = 64;

// The 64-character key (lower-case hexadecimal) of `generation`.
std::string KeyForGeneration(unsigned int generation);

// What the marker files of a data directory say.
struct KeyMarker {
  bool has_current = false;  // "key_generation" exists
  unsigned int current = 0;  // its number
  bool has_next = false;     // "key_generation.next" exists
  unsigned int next = 0;     // its number
};

// Reads and writes the marker files of one data directory. Every write goes
// to a temporary file that is synced and renamed into place.
class KeyStore {
 public:
  explicit KeyStore(std::string directory);

  // Reads both markers. False (with `error`) when one exists but does not
  // hold a number.
  bool Load(KeyMarker* marker, std::string* error) const;
  bool WriteCurrent(unsigned int generation, std::string* error) const;
  bool WriteNext(unsigned int generation, std::string* error) const;
  // Renames "key_generation.next" over "key_generation".
  bool PromoteNext(std::string* error) const;
  // Removes "key_generation.next" (absent is fine).
  bool DropNext(std::string* error) const;

  std::string CurrentPath() const;
  std::string NextPath() const;

 private:
  bool ReadNumber(const std::string& path, bool* exists, unsigned int* value,
                  std::string* error) const;
  bool WriteNumber(const std::string& path, unsigned int value, std::string* error) const;

  std::string directory_;  // ends with "/"
};

}  // namespace recorder

#endif  // IPC_DB_EXAMPLES_EVENT_RECORDER_KEYSTORE_H_
