// Symbol visibility for the talvern shared library.
#pragma once

#if defined(_WIN32)
#if defined(TALVERN_BUILDING)
#define TALVERN_API __declspec(dllexport)
#elif defined(TALVERN_STATIC) // linked with the static library (the tests)
#define TALVERN_API
#else
#define TALVERN_API __declspec(dllimport)
#endif
#else
#define TALVERN_API __attribute__((visibility("default")))
#endif
