// A folder of a test's own, gone with it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <string>

class Folder {
 public:
  Folder() { std::filesystem::create_directories(path_); }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
  // The path of a new file of these bytes; name: empty for any.
  std::string with(std::span<const std::uint8_t> bytes, const std::string& name = {}) {
    const auto file = path_ / (name.empty() ? std::to_string(++count_) + ".bin" : name);
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return file.string();
  }

 private:
  const std::filesystem::path path_ =
      std::filesystem::temp_directory_path() / ("voxdevice-test-" + std::to_string(std::random_device()()));
  int count_ = 0;
};
