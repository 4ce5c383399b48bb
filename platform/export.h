// Symbol visibility for the platform library (kplatform) on ELF and PE.
#pragma once

#if defined(_WIN32)
#if defined(KPLATFORM_BUILD)
#define KPLATFORM_API __declspec(dllexport)
#else
#define KPLATFORM_API __declspec(dllimport)
#endif
#else
#define KPLATFORM_API __attribute__((visibility("default")))
#endif
