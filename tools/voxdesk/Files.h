// The files that voxdesk writes.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>

struct Options;

// Throws when what is written would replace what is read, or what else is written. records: --out is a recording's.
void checkFiles(const Options& options, bool records);
// Opens a file to write, anew. Null: errno says why. A pipe that nobody reads is waited for; throws when somebody
// interrupts that.
std::FILE* openOutput(const std::filesystem::path& path);
// Throws when a file cannot be written, before the work begins that it is for. Empty, or kStandardOutput: nothing to
// ask.
void checkOutput(const std::string& name);
// Writes all of a file, or throws and leaves none.
void writeOutput(const std::string& name, const std::string& content);
