#pragma once

/// Marks what the shared library offers to hosts; everything else stays hidden.
#if defined(__GNUC__)
#define VELKOR_EXPORT [[gnu::visibility("default")]]
#else
#define VELKOR_EXPORT
#endif
