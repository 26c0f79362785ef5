// What Visual Studio's startup code does for a console program, as far as it concerns an example.
#include "stdlib.h"

int main(int argc, char** argv);
typedef struct {
  int newMode;
} StartInfo;
int __cdecl __getmainargs(int* argc, char*** argv, char*** environment, int expand, StartInfo* info);

int _fltused;  // said by the compiler where there is floating point

void __cdecl start(void) {
  int argc = 0;
  char **argv = 0, **environment = 0;
  StartInfo info = {0};
  __getmainargs(&argc, &argv, &environment, 0, &info);
  exit(main(argc, argv));
}
