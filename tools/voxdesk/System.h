// The few things for which systems differ.
#pragma once

#include <cstdio>
#include <filesystem>

// Makes a console of Windows show UTF-8 and move its cursor; others do. Elsewhere: nothing that is opened later takes
// the number of a standard stream that is closed.
void prepareConsole();
bool isScreen(std::FILE* stream);
// How many characters a line of the screen has; 0 where nobody knows.
int columnsOf(std::FILE* screen);
// Whether screens show what is not ASCII: on Windows they do; elsewhere the environment's locale says so.
bool screenShowsUnicode();
// Standard output, for nobody else: what is printed to it from now on is dropped. Null when that fails.
// binary: what is written is not to be changed on its way.
std::FILE* takeStandardOutput(bool binary);
// Opens a file to write, anew or, where it keeps what it has, at its end. Waits for nobody: elsewhere than on Windows,
// errno is ENXIO when it is a pipe that nobody reads.
std::FILE* openForWriting(const std::filesystem::path& path, bool keeps);
// Waits for a line on standard input. False at its end, and when a signal comes.
bool waitForLine(char* line, int size);
// Calls this, on any thread, for Ctrl-C and everything else that asks a program to end. Writing to what is closed or
// too large is an error from now on, and no reason to end.
void onRequestToEnd(void (*handler)());
// Ends the program where it stands, from within such a handler.
[[noreturn]] void endAtOnce(int exitCode);
// The folder that this program is in.
std::filesystem::path programFolder();
