#pragma once

// Marks what the shared library exports: everything else in it is hidden, so a host
// links against the public interface only.
// VELTO_HIDDEN keeps a member of an exported class inside the library.
#if defined(__GNUC__) || defined(__clang__)
#define VELTO_EXPORT __attribute__((visibility("default")))
#define VELTO_HIDDEN __attribute__((visibility("hidden")))
#else
#define VELTO_EXPORT
#define VELTO_HIDDEN
#endif
