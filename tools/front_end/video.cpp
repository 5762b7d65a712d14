#include "front_end/video.h"

#include <cstdint>

namespace kovathumb {
namespace tool {

namespace {

bool At(const std::string& head, size_t offset, const char* magic, size_t n) {
  return head.size() >= offset + n && head.compare(offset, n, magic, n) == 0;
}

// ISO base media and QuickTime: a first box of a type such files begin with,
// of a size that can be one (1: a 64-bit size follows).
bool IsIsoMedia(const std::string& head) {
  if (head.size() < 8) return false;
  const uint32_t size = static_cast<uint32_t>(static_cast<unsigned char>(head[0])) << 24 |
                        static_cast<uint32_t>(static_cast<unsigned char>(head[1])) << 16 |
                        static_cast<uint32_t>(static_cast<unsigned char>(head[2])) << 8 |
                        static_cast<uint32_t>(static_cast<unsigned char>(head[3]));
  if (size != 1 && size < 8) return false;
  for (const char* type : {"ftyp", "moov", "mdat", "free", "skip", "wide", "pnot"}) {
    if (At(head, 4, type, 4)) return true;
  }
  return false;
}

// MPEG transport stream: three packets in a row, of 188 bytes or of 192
// with a 4-byte time before each (camcorders' and discs' m2ts).
bool IsTransportStream(const std::string& head) {
  for (const size_t packet : {188u, 192u}) {
    const size_t first = packet - 188;
    bool sync = head.size() > first + 2 * packet;
    for (size_t k = 0; sync && k < 3; ++k) sync = head[first + k * packet] == '\x47';
    if (sync) return true;
  }
  return false;
}

}  // namespace

std::string VideoDemuxer(const std::string& head) {
  if (IsIsoMedia(head)) return "mov";
  if (At(head, 0, "\x1A\x45\xDF\xA3", 4)) return "matroska";  // and WebM
  if (At(head, 0, "RIFF", 4) && (At(head, 8, "AVI ", 4) || At(head, 8, "AVIX", 4))) return "avi";
  if (At(head, 0, "\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16)) return "asf";
  if (At(head, 0, "FLV\x01", 4)) return "flv";
  if (At(head, 0, "OggS", 4)) return "ogg";
  if (At(head, 0, ".RMF", 4)) return "rm";
  if (At(head, 0, "\x00\x00\x01\xBA", 4)) return "mpeg";       // program stream: VOB, MPG, DAT
  if (At(head, 0, "\x00\x00\x01\xB3", 4)) return "mpegvideo";  // a bare MPEG-1/2 video stream
  if (IsTransportStream(head)) return "mpegts";
  return "";
}

std::vector<std::string> ScreenshotArgs(const std::string& demuxer, const std::string& input,
                                        const std::string& output) {
  // The whitelists hold for every input a demuxer would open from inside
  // this one; QuickTime's references to other files stay off all the same.
  std::vector<std::string> args = {"-nostdin", "-v", "error", "-y", "-protocol_whitelist", "file",
                                   "-format_whitelist", demuxer, "-f", demuxer};
  if (demuxer == "mov") args.insert(args.end(), {"-enable_drefs", "0", "-use_absolute_path", "0"});
  args.insert(args.end(), {"-i", "file:" + input, "-vf", "thumbnail=25,scale='min(1280,iw)':-2", "-frames:v", "1",
                           "-q:v", "3", output});
  return args;
}

}  // namespace tool
}  // namespace kovathumb
