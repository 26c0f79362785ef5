// The few things for which systems differ.
#pragma once

#include <cstdio>
#include <filesystem>

// Makes a console of Windows show UTF-8 and move its cursor; others do.
void prepareConsole();
bool outputIsScreen();
// Standard output, for nobody else: what is printed to it from now on is dropped. Null when that fails.
std::FILE* takeStandardOutput();
// The folder that this program is in.
std::filesystem::path programFolder();
