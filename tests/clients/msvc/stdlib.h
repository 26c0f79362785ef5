#pragma once
__declspec(noreturn) void __cdecl exit(int code);
