// As much of msvcrt.dll's C library as an example needs, for a compiler without Visual Studio's headers.
#pragma once
#include <stddef.h>

typedef struct {
  char* next;
  int count;
  char* base;
  int flags, file, buffered, size;
  char* temporary;
} FILE;
__declspec(dllimport) extern FILE _iob[3];
#define stdout (&_iob[1])
#define stderr (&_iob[2])
FILE* __cdecl fopen(const char* path, const char* mode);
int __cdecl fclose(FILE* file);
int __cdecl fputc(int character, FILE* file);
int __cdecl fputs(const char* text, FILE* file);
int __cdecl fprintf(FILE* file, const char* format, ...);
int __cdecl printf(const char* format, ...);
void __cdecl perror(const char* text);
