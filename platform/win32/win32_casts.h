// Pointer conversions between our seam types and Windows' own. Include after
// <windows.h>.
#pragma once

#include "platform/types.h"

namespace platform::win32 {

// Our fixed-width integers have the sizes of Windows' long-based types (LLP64); only the
// pointer types differ, so the conversion is a reinterpretation of the same bytes.
template <typename To, typename From>
To* As(From* p) {
  static_assert(sizeof(To) == sizeof(From), "same size on both sides of the seam");
  return reinterpret_cast<To*>(p);
}
template <typename To, typename From>
const To* As(const From* p) {
  static_assert(sizeof(To) == sizeof(From), "same size on both sides of the seam");
  return reinterpret_cast<const To*>(p);
}

static_assert(sizeof(::DWORD) == sizeof(platform::DWORD), "DWORD");
static_assert(sizeof(::LONG) == sizeof(platform::LONG), "LONG");
static_assert(sizeof(::ULONG) == sizeof(platform::ULONG), "ULONG");
static_assert(sizeof(::BOOL) == sizeof(platform::BOOL), "BOOL");
static_assert(sizeof(::WCHAR) == sizeof(platform::WCHAR), "WCHAR");
static_assert(sizeof(::HRESULT) == sizeof(platform::HRESULT), "HRESULT");

}  // namespace platform::win32
