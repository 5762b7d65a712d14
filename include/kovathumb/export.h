// Symbol visibility of libkovathumb: the library is built with hidden
// visibility, and only what carries KOVATHUMB_EXPORT is its interface.
#ifndef KOVATHUMB_EXPORT_H_
#define KOVATHUMB_EXPORT_H_

#define KOVATHUMB_EXPORT __attribute__((visibility("default")))

#endif  // KOVATHUMB_EXPORT_H_
