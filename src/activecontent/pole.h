#pragma once
// Reader of compound files (Microsoft's published Compound File Binary format): a small file system
// of storages and streams inside one buffer. Read-only. Nothing in the file is believed: every
// number is checked against the buffer, chains and trees end at the first thing seen twice, walks
// keep their own stack. Works on the caller's memory, which must outlive it; no shared state, any
// thread. Only running out of memory raises an error.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace POLE {

class StorageIO;
class StreamIO;
struct DirEntry;

class Storage {
 public:
  // The open status, in the order in which loading passes through it.
  enum Result { OpenFailed, NotOLE, BadOLE, Ok };

  Storage(const std::uint8_t* buffer, std::size_t length);
  ~Storage();
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;

  // Loads header, tables and directory; true when the status is Ok.
  bool open();
  void close();
  [[nodiscard]] Result result() const;

  // The names of the children of the storage at a path ("/" for the root), in tree order. Empty
  // when there is no such storage.
  [[nodiscard]] std::vector<std::string> entries(const std::string& path) const;
  [[nodiscard]] std::vector<DirEntry> dirEntries(const std::string& path) const;
  // True if the path names a storage.
  [[nodiscard]] bool isDirectory(const std::string& path) const;
  // Which of the tokens are held by the name of an entry at or below the storage at a path: bit i
  // for token i. One walk for all of them, ended as soon as the first token is found.
  [[nodiscard]] unsigned find_names(const std::string& path,
                                    std::span<const std::string_view> tokens) const;

 private:
  friend class Stream;
  std::unique_ptr<StorageIO> io_;
};

class Stream {
 public:
  // The stream at a path of an open storage, which must outlive it.
  Stream(const Storage& storage, const std::string& path);
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // Reads up to length bytes from where the stream stands; how many there were.
  std::size_t read(std::uint8_t* data, std::size_t length);
  // The next byte, or -1 at the end.
  int getch();
  void seek(std::uint64_t position);
  [[nodiscard]] std::uint64_t tell() const;
  // As the directory says; the file may hold less.
  [[nodiscard]] std::uint64_t size() const;
  [[nodiscard]] bool eof() const;
  // True when there is no such stream.
  [[nodiscard]] bool fail() const;
  [[nodiscard]] std::string fullName() const;

 private:
  std::unique_ptr<StreamIO> io_;
};

}  // namespace POLE
