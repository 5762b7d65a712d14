// Quality mode's tools: the private directory their outputs go to, what a
// thumbnail is made from, and the runs of djpeg, cjpeg, ImageMagick, dcraw
// and heif-convert that make it. Thumb's quality members (quality.cpp)
// decide which of these to run.
#ifndef KOVATHUMB_LIBKOVATHUMB_QUALITY_TOOLS_H_
#define KOVATHUMB_LIBKOVATHUMB_QUALITY_TOOLS_H_

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "kovathumb/thumb_info.h"
#include "libkovathumb/quality.h"
#include "libkovathumb/thumb_shared.h"
#include "quality/pipeline.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace internal {

// A directory only we can write, for the tools' outputs; removed with its
// files when done. Tools reach it through our descriptor, so renaming it
// or planting links beside it changes nothing.
class QualityWorkDir {
 public:
  // In the EA directory open at `ea`, else (-1) under /var/tmp.
  explicit QualityWorkDir(int ea) {
    if (ea >= 0) {
      dir_.Create(ea, safe_fs::kPrivatePrefix);
    } else {
      dir_.CreateAt(kVarTmpTemplate);
    }
  }
  QualityWorkDir(const QualityWorkDir&) = delete;
  QualityWorkDir& operator=(const QualityWorkDir&) = delete;

  bool ok() const { return dir_.valid(); }
  int fd() const { return dir_.fd(); }
  // A file in the directory, by a path the tools and we can both open.
  std::string File(const std::string& name) const { return dir_.ToolPath(name); }
  // Whether `name` is a non-empty regular file here.
  bool Has(const std::string& name) const {
    struct stat64 st;
    safe_fs::Fd f = safe_fs::OpenRegularAt(dir_.fd(), name, &st);
    return f.valid() && st.st_size > 0;
  }
  // Removes `name` here.
  void Drop(const std::string& name) const { unlinkat(dir_.fd(), name.c_str(), 0); }
  // A second name for `from`, replacing `to`.
  bool Link(const std::string& from, const std::string& to) const {
    unlinkat(dir_.fd(), to.c_str(), 0);
    return linkat(dir_.fd(), from.c_str(), dir_.fd(), to.c_str(), 0) == 0;
  }

  // What the pipeline made here for the source stamped `pipedSource`, kept
  // for the sizes a batch asks for next: each file is made once, and stored
  // (moved) once.
  struct Piped {
    std::string file;
    ThumbPlan plan;
    std::string storedAs;  // the name it went to; empty while it is here
  };
  std::vector<Piped> piped;
  std::string pipedSource;

 private:
  safe_fs::PrivateDir dir_;
};

// A JPEG's frame facts (ScanJpegFd's), read in a sandboxed child: the
// marker walk is a parser of untrusted bytes too. Not ok when the child
// failed. The file by descriptor, or by a path we open without following.
JpegFacts ScanJpegApart(int fd);
JpegFacts ScanJpegApart(const std::string& path);

// What a thumbnail is made from.
struct QualityInput {
  std::string path;
  std::string coder;  // ImageMagick's reader
  int rotate;         // quarter turns, a mirror, then the user's quarter turns
  bool flop;
  int userRotate;
};

// Scales `in` into `box` (filling it, centred, with `crop`), turns it
// upright, converts it to sRGB and writes `outName` in `wd` as `outMime`.
// With `keep`, the upright pixels are left there when they passed through
// this process (a plain JPEG to a JPEG), for smaller sizes to come.
bool MakeQualityThumb(const QualityInput& in, ThumbDimension box, bool crop, const std::string& outMime,
                      const QualityWorkDir& wd, const std::string& outName, Pixels* keep);

// Writes `pixels` as the JPEG `outName` in `wd`.
bool EncodeQualityJpeg(const Pixels& pixels, const QualityWorkDir& wd, const std::string& outName);

// The raw `source`'s embedded preview, as dcraw hands it out, written to
// `name` in `wd`; false when there is none.
bool ExtractRawPreview(const std::string& source, const QualityWorkDir& wd, const std::string& name);

// The HEIF `source` decoded (and turned, as the file says) to the JPEG
// `name` in `wd`.
bool DecodeHeif(const std::string& source, const QualityWorkDir& wd, const std::string& name);

}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_LIBKOVATHUMB_QUALITY_TOOLS_H_
