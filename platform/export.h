#pragma once
/// @file
/// PLAT_EXPORT marks what leaves a shared module. Everything else stays inside, since the whole tree
/// is compiled with hidden visibility.
#ifdef _WIN32
#define PLAT_EXPORT __declspec(dllexport)
#else
#define PLAT_EXPORT __attribute__((visibility("default")))
#endif
