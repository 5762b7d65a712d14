// The one rule for whether a stored thumbnail serves a request: the
// library's destinations, get, the endpoints, index, watch and prune all
// ask it, so they never disagree about a file.
#ifndef KOVATHUMB_STORE_FRESH_H_
#define KOVATHUMB_STORE_FRESH_H_

#include <sys/types.h>
#include <time.h>

#include <string>

#include "store/image_facts.h"
#include "store/names.h"
#include "util/safe_fs.h"

namespace kovathumb {
namespace store {

enum class Behaviour {
  kAppliance,  // any whole file as new as the source
  kQuality,    // also of the type its name says, within the box it names
};

// A stored file as seen through its directory, never through a link.
struct StoredFile {
  bool regular = false;
  off_t size = 0;
  time_t mtime = 0;
  ImageFacts image;  // read only for kQuality
};

// The most bytes a thumbnail may have (KOVATHUMB_MAX_THUMB_BYTES, else
// 16 MiB): a larger stored file is none, and nothing larger is sent.
long long MaxThumbBytes();

// Whether the file `f` stored under `name` serves a request for a source
// last modified at `sourceMtime`; pure but for the bound above. A djpeg BMP
// under a ".jpg" name, or a thumbnail twice its box (the appliance's),
// serves only the appliance.
bool Serves(const StoredName& name, const StoredFile& f, time_t sourceMtime, Behaviour b);

// The same for `name` in the EA directory open at `ea`. The file judged
// goes to `opened` with its status (when given), so that what was judged
// is what is sent.
bool ServesAt(int ea, const std::string& name, time_t sourceMtime, Behaviour b, safe_fs::Fd* opened = nullptr,
              struct stat64* st = nullptr);

}  // namespace store
}  // namespace kovathumb

#endif  // KOVATHUMB_STORE_FRESH_H_
