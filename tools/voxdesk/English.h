// What the library's own texts say, and what its numbers are called.
#pragma once

#include <string>

// A text of the library in English; names and numbers in it stay. Empty for one that is English as it stands.
std::string english(const std::string& text);
// "device connected"; "other" for a number that has no name.
const char* nameOfLogCategory(int category);
// "image finished"; of FwUpdateState.
const char* nameOfUpdateState(int state);
