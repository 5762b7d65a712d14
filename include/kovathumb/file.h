// File helpers of libkovathumb: where a source's extended-attribute (EA)
// directory and the thumbnails in it are, whether a location can hold them,
// temporary names, and which file names are supported photos and videos.
//
// The functions hold no state and may be called from any thread. They never
// throw kovathumb::Error; failures come back as an empty string or false,
// with a line in the system log where noted.
#ifndef KOVATHUMB_FILE_H_
#define KOVATHUMB_FILE_H_

#include <string>
#include <unordered_set>

#include "kovathumb/export.h"

namespace kovathumb {

// A set of extensions (lower-case C strings, hashed by pointer: lookups walk
// it and compare contents).
using ExtensionSet = std::unordered_set<const char*>;

namespace file {

// Full path of EA file `name` of the source `path`; empty (and logged) when
// the platform cannot give one.
KOVATHUMB_EXPORT std::string GetEAPath(const std::string& path, const std::string& name);
// True when the EA directory of `path` exists or was made.
KOVATHUMB_EXPORT bool MakeEADir(const std::string& path);
// Whether thumbnails may be stored in EA directories at directory `path`:
// not on network or image file systems, nor on the platform's type 12. A
// location whose type cannot be found counts as writable (logged).
KOVATHUMB_EXPORT bool IsDestSupportEAWrite(const std::string& path);
// Moves `src` to `dst` through the platform's copy service.
KOVATHUMB_EXPORT bool SDKMoveFile(const std::string& src, const std::string& dst);
// POSIX dirname of `path` (cut at 4095 bytes): "/a/b.jpg" gives "/a", "b.jpg" gives ".".
KOVATHUMB_EXPORT std::string Dirname(const std::string& path);
// EA path of `name` + "_<pid>_<seconds>", or empty.
KOVATHUMB_EXPORT std::string GetEATmpPath(const std::string& path, const std::string& name);
// "/var/tmp/kovathumb_<name>_<pid>_<seconds>".
KOVATHUMB_EXPORT std::string GetVarTmpPath(const std::string& name);

// Removes from the open EA directory `eaDir` the work directories left there
// by a process of ours that was killed, so that the directory can be removed
// once nothing else is in it. A user's look-alikes stay.
KOVATHUMB_EXPORT void SweepAbandonedWork(int eaDir);

// Lower-cased text after the last '.' of `path`; the whole lower-cased
// argument when it has no dot ("MP4" gives "mp4").
KOVATHUMB_EXPORT std::string GetFileExt(const std::string& path);

}  // namespace file

// The extension sets behind IsSupportImage and IsSupportVideo.
KOVATHUMB_EXPORT const ExtensionSet& ImageExtensionSet();
KOVATHUMB_EXPORT const ExtensionSet& VideoExtensionSet();
// What quality mode thumbnails: the appliance's photos and the types it
// reads beyond them (WebP, AVIF, JPEG XL, CR3 and the raws LibRaw knows).
KOVATHUMB_EXPORT const ExtensionSet& QualityImageExtensionSet();

// Whether the extension of `path` is in `set`.
KOVATHUMB_EXPORT bool IsSupportExt(const ExtensionSet& set, const std::string& path);
KOVATHUMB_EXPORT bool IsSupportImage(const std::string& path);
KOVATHUMB_EXPORT bool IsQualityImage(const std::string& path);
KOVATHUMB_EXPORT bool IsSupportVideo(const std::string& path);

}  // namespace kovathumb

#endif  // KOVATHUMB_FILE_H_
