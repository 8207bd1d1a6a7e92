#include "lab/verify.h"

#include <sys/stat.h>

#include "journal_status.h"
#include "lab/compare.h"
#include "lab/crash.h"
#include "lab/rebuilt.h"

namespace lab {

static bool exists(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

// After a clean shutdown the journal stays in place. A recovery may have deleted it, and it is set
// aside before a rebuild.
static bool journal_may_be_gone(const model& m, truth wanted) {
    return wanted == truth::rebuilt || (m.crashed && wanted != truth::untouched);
}

static std::string verify_file(const model& m, truth wanted, const std::string& directory,
                               const file_ref& file) {
    if (wanted == truth::rebuilt && file.kind == file_kind::tbl) {
        return "";  // compared together with its index
    }
    if (wanted == truth::rebuilt && file.kind == file_kind::fri) {
        return compare_rebuilt(m, file.index, directory);
    }
    if (m.ran && file.kind == file_kind::journal) {
        return "";  // a run that was killed leaves half a record in it
    }
    const file_image expected = image_of(m, file);
    const bool gone = file.kind == file_kind::journal && journal_may_be_gone(m, wanted) &&
                      !exists(directory + "/" + expected.path);
    return gone ? "" : compare_file(directory, expected);
}

std::string verify_sample(model* m, truth wanted, const std::string& directory, progress* bar) {
    if (wanted == truth::untouched) {
        lose_writes(m);
        m->journal.header.jnl_shutdown_tag = JNL_STATUS_BAD;
    }
    const std::vector<file_ref> files = list_files(*m);
    progress_start(bar, "comparing", files.size());
    for (const file_ref& file : files) {
        std::string difference = verify_file(*m, wanted, directory, file);
        if (!difference.empty()) {
            progress_end(bar);
            return difference;
        }
        progress_step(bar);
    }
    progress_end(bar);
    return "";
}

}  // namespace lab
