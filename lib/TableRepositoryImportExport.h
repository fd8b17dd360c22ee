#pragma once

// Symbols a host links against. Everything else in the library stays hidden.
#if defined(_WIN32)
#if defined(TABLEREPOSITORYIMPORTLIB_STATIC)
#define TRI_API
#elif defined(TABLEREPOSITORYIMPORTLIB_BUILDING)
#define TRI_API __declspec(dllexport)
#else
#define TRI_API __declspec(dllimport)
#endif
#else
#define TRI_API __attribute__((visibility("default")))
#endif
