// Symbol visibility of libkovathumb: the library is built with hidden
// visibility, and only what carries KOVATHUMB_EXPORT is its interface.
#ifndef KOVATHUMB_EXPORT_H_
#define KOVATHUMB_EXPORT_H_

#define KOVATHUMB_EXPORT __attribute__((visibility("default")))
// Members an exported class keeps to itself: not in the library's interface,
// so they may change without breaking programs built against it.
#define KOVATHUMB_LOCAL __attribute__((visibility("hidden")))

#endif  // KOVATHUMB_EXPORT_H_
