// Where the request's log lines say they were written.
#ifndef KOVATHUMB_LIBKOVATHUMB_LOG_SITES_H_
#define KOVATHUMB_LIBKOVATHUMB_LOG_SITES_H_

#include "util/log.h"

namespace kovathumb {
namespace internal {
namespace site {

// The places the appliance's log readers know these lines by; they stay when the code moves.
constexpr char kFile[] = "libkovathumb.cpp";
constexpr LogSite kPreviewNotSaved{kFile, 287};
constexpr LogSite kPreviewNotConverted{kFile, 298};
constexpr LogSite kCannotAccess{kFile, 418};
constexpr LogSite kRefused{kFile, 422};
constexpr LogSite kNotStaged{kFile, 440};
constexpr LogSite kRefusedStaged{kFile, 446};
constexpr LogSite kChmod{kFile, 449};
constexpr LogSite kChown{kFile, 453};
constexpr LogSite kUtime{kFile, 463};
constexpr LogSite kNotMoved{kFile, 467};
constexpr LogSite kChownGuard{kFile, 489};
constexpr LogSite kUtimeGuard{kFile, 510};
constexpr LogSite kImportProbe{kFile, 487};
constexpr LogSite kImportEADir{kFile, 493};
constexpr LogSite kImportMime{kFile, 505};
constexpr LogSite kImportCheck{kFile, 510};
constexpr LogSite kConvertSizes{kFile, 95};
constexpr LogSite kConvertDimensions{kFile, 113};

}  // namespace site
}  // namespace internal
}  // namespace kovathumb

#endif  // KOVATHUMB_LIBKOVATHUMB_LOG_SITES_H_
