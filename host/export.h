// Symbol visibility for the host core library (tessilcore) on ELF and PE.
#pragma once

#if defined(_WIN32)
#if defined(TESSILCORE_BUILD)
#define TESSIL_API __declspec(dllexport)
#else
#define TESSIL_API __declspec(dllimport)
#endif
#else
#define TESSIL_API __attribute__((visibility("default")))
#endif
