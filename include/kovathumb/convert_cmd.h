// The conversion commands: each builds the argument vector of one external
// image tool from a copy of a ThumbInfo, an input path and an output path,
// and exec() runs it (without a shell), waits, cleans up and answers whether
// the output was produced.
//
// Commands are automatic objects used for one call: build, exec() once,
// destroy; never copied, never deleted through a ThumbConvertCmd pointer.
// The argument vector borrows strings: ConvertCmd's and JpegTranCmd's point
// into the command itself, DJpegCmd's and DcrawCmd's input element into the
// string the caller passed, which must outlive the command.
//
// Threads: commands share no mutable state; several may run at once.
// Errors: a tool that fails or cannot be started makes exec() false and is
// never logged; only standard-library exceptions (allocation) leave a
// command. GIFConvertCmd and DcrawCmd run a first tool in their constructor.
//
// Converting one file by hand, as a request does:
//
//   kovathumb::ThumbInfo info(src, kovathumb::kSizeBig, {640, 640});
//   try {
//     info.ExtractImgInfo(false);
//   } catch (const kovathumb::Error& e) {
//     if (e.Code() != kovathumb::kErrorUnknownType) throw;  // else go on with what is known
//   }
//   const bool made = kovathumb::ConvertCmd(info, src, "/var/tmp/mine/thumb.jpg").exec();
#ifndef KOVATHUMB_CONVERT_CMD_H_
#define KOVATHUMB_CONVERT_CMD_H_

#include <cstdio>
#include <string>
#include <vector>

#include "kovathumb/export.h"
#include "kovathumb/thumb_info.h"

namespace kovathumb {

class KOVATHUMB_EXPORT ThumbConvertCmd {
 public:
  static const std::string kConvert;   // "/usr/bin/convert"
  static const std::string kDcraw;     // "/usr/bin/dcraw"
  static const std::string kDjpeg;     // "/usr/bin/djpeg"
  static const std::string kJpegtran;  // "/usr/bin/jpegtran"

  ThumbConvertCmd(const ThumbConvertCmd&) = delete;
  ThumbConvertCmd& operator=(const ThumbConvertCmd&) = delete;

  // True when the output file was produced.
  virtual bool exec() = 0;

  // The argument vector as it stands (as run, once exec() has composed it),
  // without the terminating null.
  std::vector<std::string> GetArgv() const;

 protected:
  ThumbConvertCmd(ThumbInfo info, const std::string& src, const std::string& dst);
  ~ThumbConvertCmd();

  std::vector<const char*> argv;
  ThumbInfo info;
  std::string src;
  std::string dst;
  std::string geometry;
  std::string rotateDegrees;
  std::string userRotateDegrees;
};

// ImageMagick convert: first frame only, scaled into the target box (or a
// centred crop), orientation rotation, mirror, user rotation. The command
// opens its input and hands the converter that descriptor's /proc path,
// with the coder its leading bytes announce ("jpeg:", "png:", ...); an input
// in any other format is not converted (exec() false).
class KOVATHUMB_EXPORT ConvertCmd : public ThumbConvertCmd {
 public:
  ConvertCmd(ThumbInfo info, const std::string& src, const std::string& dst);
  ~ConvertCmd();
  bool exec() override;
  // Whether the media add-on is enabled; read anew on every call.
  bool IsMedextraEnabled();
  // The add-on's converter when it is enabled, else kConvert.
  std::string getConvertPath();

 private:
  int input_;  // the input, open while the command lives; -1 when unreadable
  std::string coder_;
};

// djpeg decoding a large JPEG at 1/1, 1/2, 1/4 or 1/8 straight to BMP, then
// ConvertCmd when the image must turn or mirror.
class KOVATHUMB_EXPORT DJpegCmd : public ThumbConvertCmd {
 public:
  static const double TOO_SMALL_RATIO;  // 0.75

  DJpegCmd(ThumbInfo info, const std::string& src, const std::string& dst);
  ~DJpegCmd();
  // Scale exponent S (0..3): the image is decoded at 1/2^S.
  int CalcScale() const;
  void CalcScaleString();
  int GetScale() const;
  // Estimated bytes of the BMP djpeg writes.
  unsigned GetConvertBytes() const;
  // Whether the caller should delete the output once sent: it is not much
  // smaller than the source.
  bool IsNeedDelete() const;
  bool exec() override;

 private:
  std::string outPath;
  std::string scaleString;
};

// Animated GIF: the constructor coalesces the frames into a file it creates
// in /var/tmp; exec() scales, turns and re-optimises them. Both runs read
// their input as GIF, whatever its content.
class KOVATHUMB_EXPORT GIFConvertCmd : public ThumbConvertCmd {
 public:
  GIFConvertCmd(ThumbInfo info, const std::string& src, const std::string& dst);
  ~GIFConvertCmd();
  void setupCoalesceTmpPath();
  bool exec() override;

 private:
  std::string coalescePath;
  std::string coalesceInput;  // "gif:" + coalescePath, as argv holds it
};

// Raw camera files: the constructor extracts the embedded JPEG preview with
// dcraw into a file it creates beside `dst` (dst + "_<pid>_<seconds>"),
// reading dcraw no longer than a tool may run; exec() scales it (DJpegCmd,
// else ConvertCmd) or, failing both, moves it to the output as it is.
class KOVATHUMB_EXPORT DcrawCmd : public ThumbConvertCmd {
 public:
  DcrawCmd(ThumbInfo info, const std::string& src, const std::string& dst);
  ~DcrawCmd();
  void setupRawThumbPath();
  bool checkTmpExif();
  bool exec() override;

 private:
  std::string rawThumbPath;
  FILE* pipe;
  FILE* outFile;
};

// jpegtran lossless rotation, to a file (exec) or a stream (popen).
class KOVATHUMB_EXPORT JpegTranCmd : public ThumbConvertCmd {
 public:
  // With `userRotateOnly` the orientation rotation is left out (the input is
  // already upright). An empty `dst` means standard output.
  JpegTranCmd(ThumbInfo info, const std::string& src, const std::string& dst, bool userRotateOnly);
  ~JpegTranCmd();
  bool exec() override;
  // The rotated JPEG as a read stream from its start, or null when the
  // tool failed or wrote more than 4 × MaxThumbBytes(); made whole before
  // it is returned. The caller closes it with fclose.
  virtual FILE* popen();

 private:
  std::string angle;
};

}  // namespace kovathumb

#endif  // KOVATHUMB_CONVERT_CMD_H_
