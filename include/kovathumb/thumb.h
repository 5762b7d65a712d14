// kovathumb::Thumb, the thumbnail request: one source file (photo or video)
// and its thumbnails. A web process builds one, may Rotate it, and calls
// Output(size) to send that size as the CGI response on standard output;
// an indexer calls ConvertAll, Convert or SaveExistingThumbsToEA to make and
// store thumbnails now.
//
// Finding an output walks a fixed chain: thumbnails already stored in the
// source's extended-attribute (EA) directory under each application's name,
// if at least as new as the source; the camera's embedded preview; a HEIC
// original; a conversion now, stored into the EA directory (or left in
// /var/tmp where the directory cannot be written); last, the source itself
// where conversion would not help.
//
// Ownership: a Thumb owns its ThumbInfo and removes the embedded-preview
// file it wrote when destroyed. It never deletes the output file by itself:
// when IsNeedDelete() is true after a request, the caller removes it with
// DeleteOutputFile().
//
// Trust: the directory part of the source path is the caller's to vouch for
// (programs hand "/proc/self/fd/<dir>/<name>" for a directory they opened
// safely). From there on nothing follows a link: not the source's own name,
// not the EA directory, not anything in it; the file that was checked is the
// file that is read, converted, stored and sent. Tools write into a private
// directory that is removed when the request ends.
//
// Threads: one Thumb belongs to one thread. Storing briefly switches the
// process's effective user to root; no other thread may depend on the
// effective ids meanwhile.
//
// Errors: the constructor throws kovathumb::Error kErrorCannotExamine for a
// source that cannot be examined, requests rethrow the Error of probing a
// source except kErrorUnknownType (treated as unreadable facts), and an unknown
// size name throws std::out_of_range ("map::at"). Everything else reports by
// its result and a line in the system log.
//
// Answering one CGI request, "/proc/self/fd/7/IMG_0001.JPG" being the photo
// in a directory the program opened safely:
//
//   kovathumb::Thumb thumb("/proc/self/fd/7/IMG_0001.JPG",
//                          kovathumb::kThumbOptPictavoEA | kovathumb::kThumbOptDossivaEA,
//                          false);
//   thumb.Rotate(userQuarterTurns);
//   thumb.Output(kovathumb::kSizeBig);  // headers and body on standard output
//   fflush(stdout);
//   if (thumb.IsNeedDelete()) thumb.DeleteOutputFile();
//   if (thumb.GetOutputFile().empty()) { /* nothing was sent: answer 404 */ }
//
// A size name may fall back to smaller stored sizes: set
// kThumbOptSmallerFallback, choose with CalcOutputFile(size), then send with
// HttpOutputFile(GetOutputMimeType()). Output never falls back.
//
// Making every size of a photo now (an indexer; nothing is sent):
//
//   kovathumb::Thumb thumb(path, 0, false);
//   if (!thumb.ConvertAll()) { /* none made: see LogReason() */ }
//   // Or chosen sizes and boxes; each returns how many were made.
//   thumb.Convert({std::string(kovathumb::kSizeSmall), std::string(kovathumb::kSizeBig)});
//   thumb.Convert({kovathumb::ThumbDimension{200, 150}});
//
// The constructor (and Output) throw kovathumb::Error as above: catch it
// around the whole request; Convert and ConvertAll log and go on instead.
// The size names (kSizeBig, ...) are in kovathumb/thumb_const.h.
#ifndef KOVATHUMB_THUMB_H_
#define KOVATHUMB_THUMB_H_

#include <sys/stat.h>

#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kovathumb/export.h"
#include "kovathumb/thumb_info.h"

namespace kovathumb {

namespace internal {
struct QualityInput;
class QualityWorkDir;
struct Pixels;
}  // namespace internal

// What the chosen output file is.
enum ThumbOutputType {
  kThumbOutputNone = 0,
  kThumbOutputPictavo = 1,        // the photo gallery's stored thumbnail
  kThumbOutputDossiva = 2,        // the file manager's (or avatar's) stored thumbnail
  kThumbOutputDossivaVarTmp = 3,  // made now, left in /var/tmp
  kThumbOutputCinevo = 4,         // the video application's screenshot
  kThumbOutputOriginal = 5,       // the source itself
};

// Option bits of a request; any combination.
enum ThumbOption {
  kThumbOptPictavoEA = 1,         // try the photo gallery's thumbnails
  kThumbOptDossivaEA = 2,         // try the file manager's thumbnail
  kThumbOptNoOnline = 4,          // never convert now (always so for videos)
  kThumbOptEnableGIF = 8,         // animated GIF thumbnails of animated GIFs
  kThumbOptAvatar = 32,           // avatar: centre crop, the avatar's names only
  kThumbOptSmallerFallback = 64,  // CalcOutputFile(size) may fall back to smaller sizes
  // Ours, beyond the appliance's bits: thumbnails of the type their names
  // say, fitting the box as large as the source allows, upright, in sRGB,
  // the original only where it already is all that; all sizes of a batch
  // from one decode of the source. Stored under the same names and times.
  kThumbOptQuality = 128,
  // Ours: only a thumbnail already stored answers; nothing is extracted,
  // converted or served in its place. A server's fast path, before it hands
  // the rest to a bounded child.
  kThumbOptStoredOnly = 256,
};

// No thumbnail is larger than this many bytes (16 MiB, or
// KOVATHUMB_MAX_THUMB_BYTES in the environment, the administrator's): a
// stored file beyond it is not a thumbnail and is never buffered, copied or
// sent as one, whatever its name.
KOVATHUMB_EXPORT long long MaxThumbBytes();

// A request's answer as a value, for a front end that sends it its own way
// (Output and HttpOutputFile send it as a CGI response on standard output).
class Error;

struct ThumbAnswer {
  // The bytes to send, open for reading (read them by position); the
  // Thumb's, valid until its next request or its end.
  int fd = -1;
  std::string mime;      // their type
  std::string name;      // the file name the client is offered
  std::string cache;     // how long the client may keep it (a Cache-Control value)
  struct stat st = {};   // the file's status through `fd`: its size and validators
  bool source = false;   // the source itself, not a thumbnail
  bool stored = false;   // a thumbnail as the store holds it, for more answers than this one
  bool remove = false;   // a file to remove with DeleteOutputFile() once sent
};

class KOVATHUMB_EXPORT Thumb {
 public:
  // Size name to box: small 120, medium 360, big 640, large and xlarge
  // 1280 (square boxes), original unlimited.
  static const std::map<std::string, ThumbDimension> strThumbSizeMap_;
  // The size names from largest to smallest: the fallback order.
  static const std::vector<std::string> size_vec;

  Thumb(const std::string& path, int options, bool allowHeicOriginal);
  // The source of `looked`, a Thumb that already looked for this request
  // (in a process this one was forked from, say), reached here by `path`:
  // the file it opened and what its probe found are taken, neither opened
  // nor probed again.
  Thumb(const std::string& path, int options, bool allowHeicOriginal, const Thumb& looked);
  ~Thumb();
  Thumb(const Thumb&) = delete;
  Thumb& operator=(const Thumb&) = delete;

  void SetOption(int options);
  // The user's rotation in clockwise quarter turns.
  void Rotate(int rotation);

  // Sends the thumbnail of a size name, of a box, or of a square box as the
  // CGI response. Non-zero when a response was sent; 0 (nothing written)
  // when no output could be found.
  int Output(const std::string& size);
  int Output(int width, int height);
  int Output(int edge);
  int OutputImpl();

  // Chooses the output file for the current size; empty when none. The
  // source is probed by the first call only: a server may look in the
  // store (kThumbOptStoredOnly) and, with the options changed, convert
  // with what that look learned.
  std::string CalcOutputFile();
  // The same for size name `size`, falling back to smaller sizes when the
  // fallback option is set.
  std::string CalcOutputFile(const std::string& size);
  // The same for a box.
  std::string CalcOutputFile(int width, int height);
  // The output file chosen, as a value; false when there is none, or it
  // cannot be read, or it is no thumbnail (larger than any can be). A user's
  // turn of a gallery thumbnail is applied now, into a file of its own.
  bool Answer(ThumbAnswer* answer);
  const std::string& GetOutputFile() const;
  // The descriptor of the output file as the last request checked and read
  // it, when it holds one (a stored or made thumbnail, not the source);
  // valid until the next request. -1 otherwise.
  int GetOutputDescriptor() const;
  bool IsNeedDelete() const;
  // Removes the output file made or chosen by the last request (never the
  // source), through the directory it was found in; true when removed.
  bool DeleteOutputFile();
  // "Pictavo", "Dossiva", "DossivaVarTmp", "Cinevo", "Original" or "".
  std::string GetOutputType();
  std::string GetOutputMimeType();

  // The links of the chain: true with the output file set, or false with it
  // cleared.
  bool SetOutPictavoEA();
  bool SetOutPictavoOldEA();
  bool SetOutDossivaEA();
  bool SetOutAvatar();
  bool SetOutCinevoEA();
  bool SetOutOriginalImage();
  bool SetOutFromEXIFPreview();
  bool SetOutOnline();
  // Where a thumbnail made now is stored: the avatar's or the file manager's name.
  std::string GetOnlineOutputDest() const;

  // Moves `src` to `dst` in the EA directory: mode 0777, owner root, access
  // time 0 and modification time `mtime` (0: the source's as first probed).
  // Refuses (false) an empty or incomplete image, or one of another type
  // than this request's output.
  bool SaveThumbToEA(const std::string& src, const std::string& dst, long mtime);
  bool SaveTmpThumbToEA(const std::string& tmp);
  // Stores ready thumbnails, given as (size name, file) pairs; the files are
  // moved. With `checkMime`, one whose type differs from this source's
  // output type is skipped.
  bool SaveExistingThumbsToEA(std::vector<std::pair<std::string, std::string>> thumbs, long mtime,
                              bool checkMime);
  // Makes small, medium, big, large and xlarge; true when any was made.
  bool ConvertAll();
  // Makes the sizes named or boxed from the source itself; returns how many
  // were made. The source is probed before the first size (once per object);
  // an exception for one size is logged and the next size goes on.
  int Convert(std::initializer_list<std::string> sizes);
  int Convert(std::initializer_list<ThumbDimension> dimensions);
  // The same for sizes or boxes chosen at run time.
  int Convert(const std::vector<std::string>& sizes);
  int Convert(const std::vector<ThumbDimension>& dimensions);

  // Writes the cache header, then the output file (or, for a user-turned
  // gallery thumbnail, its rotation through jpegtran) with type `mime`.
  bool HttpOutputFile(const std::string& mime);
  // Sends the source itself when browsers can show it.
  bool OutputOriginalImage();

 private:
  // Sets the request's size name and box; a size name alone takes its box
  // from strThumbSizeMap_.
  KOVATHUMB_LOCAL void SetSize(const std::string& size, ThumbDimension box);
  KOVATHUMB_LOCAL void SetSize(const std::string& size);
  // Probes a photo's source for its `facts`, its embedded `preview`, or
  // both; videos are not probed. An unknown image type (602) leaves them
  // unread and the request goes on; any other Error is rethrown as a copy.
  KOVATHUMB_LOCAL void ProbeTolerant(bool facts, bool preview);
  // The source's facts, probed once for this object (its first request);
  // later requests, the batch members and a conversion after a look in the
  // store, take them, or the probe's Error, as found then.
  KOVATHUMB_LOCAL void ProbeFacts();
  KOVATHUMB_LOCAL bool SetOutStored(const std::string& name, bool needEAPath, bool condition, int type);
  // The stored thumbnail of a named size, found before the source is probed
  // where only one stored file can be the answer; false to probe.
  KOVATHUMB_LOCAL bool SetOutStoredUnprobed();
  KOVATHUMB_LOCAL bool Fail();
  struct Pinned;
  KOVATHUMB_LOCAL int EADir(bool make);
  KOVATHUMB_LOCAL bool PrepareWork(bool inEADir, std::string* work);
  KOVATHUMB_LOCAL std::string ToolSource() const;
  KOVATHUMB_LOCAL std::string ServePath() const;

  int outputType_;
  std::string path_;
  bool isVideo_;
  bool allowHeicOriginal_;
  ThumbInfo info_;
  std::string outputFile_;
  bool noOnline_;                 // never convert now (asked, or a video)
  bool storedOnly_;               // only what is stored answers
  bool wantDossivaEA_;            // try the file manager's stored thumbnail
  bool wantPictavoEA_;            // try the photo gallery's stored thumbnails
  bool enableGIF_;                // animated thumbnails of animated GIFs
  bool originalOnlyWhenMarked_;   // serve the source only when conversion marked it
  bool needDelete_;
  bool avatar_;                   // centre crop, the avatar's names only
  bool smallerFallback_;          // CalcOutputFile(size) may fall back to smaller sizes
  int probed_;                    // 0: not yet; 1: the facts; 2: the Error in probeError_
  std::unique_ptr<Error> probeError_;
  std::unique_ptr<Pinned> pinned_;  // open files of the current request

  // Quality mode (quality.cpp).
  KOVATHUMB_LOCAL bool QualityFromPreview();
  KOVATHUMB_LOCAL bool QualityOnline(const std::string* derived = nullptr);
  KOVATHUMB_LOCAL bool QualityFromRaw();
  KOVATHUMB_LOCAL bool QualityFromHeif();
  KOVATHUMB_LOCAL bool QualityMake(const internal::QualityInput& in);
  KOVATHUMB_LOCAL internal::QualityWorkDir* NewQualityWorkDir();
  KOVATHUMB_LOCAL bool QualityStore(const internal::QualityWorkDir& wd, const std::string& name);
  KOVATHUMB_LOCAL int QualityConvert(std::vector<std::pair<std::string, ThumbDimension>> jobs, bool named);
  KOVATHUMB_LOCAL bool QualityPiped(const std::vector<std::pair<std::string, ThumbDimension>>* jobs, bool named,
                                    int* made);
  KOVATHUMB_LOCAL void QualityRelease();
  bool quality_ = false;
  // The batch members' work directory and the last thumbnail made there,
  // from which smaller sizes are made; owned, released by the destructor.
  internal::QualityWorkDir* qualityWork_ = nullptr;
  std::string qualityDerived_;
  internal::Pixels* qualityPixels_ = nullptr;  // its upright pixels, when kept
  ThumbDimension qualityDerivedSize_ = {0, 0};
  std::string qualityLastName_;  // the stored name the batch made last, and whether it was made
  bool qualityLastMade_ = false;
};

}  // namespace kovathumb

#endif  // KOVATHUMB_THUMB_H_
