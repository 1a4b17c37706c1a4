#include "KeptFiles.h"

#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

bool Present(const std::string& path)
{
    std::error_code ec;
    return fs::exists(fs::symlink_status(path, ec));
}

// ".NAME.kept-PID" beside the file (same file system, so a rename puts it back unchanged), with
// a count after it should that name be taken already.
std::string HiddenName(const std::string& path)
{
    const fs::path p(path);
    std::string name = ".";
    name.append(p.filename().string()).append(".kept-").append(std::to_string(getpid()));
    std::string hidden = (p.parent_path() / name).string();
    for (int n = 1; Present(hidden); ++n)
        hidden = (p.parent_path() / name).string() + "-" + std::to_string(n);
    return hidden;
}

} // namespace

KeptFiles::~KeptFiles()
{
    if (m_open)
        Restore();
}

std::string KeptFiles::Keep(const std::vector<GuardedFile>& files)
{
    for (const GuardedFile& f : files) {
        if (f.path.empty() || f.path.rfind("/vsi", 0) == 0)
            continue;
        Entry e{f, {}};
        if (Present(f.path)) {
            e.keep = HiddenName(f.path);
            std::error_code ec;
            // A file the run reads stays where it is; a link keeps it should the run remove it.
            if (f.readByRun)
                fs::create_hard_link(f.path, e.keep, ec);
            else
                fs::rename(f.path, e.keep, ec);
            if (ec) {
                Restore();
                return "cannot keep a copy of '" + f.path + "' beside it (" + ec.message() +
                       "); refusing to run, since a failure could not give it back";
            }
        }
        m_entries.push_back(std::move(e));
        m_open = true;
    }
    return {};
}

std::vector<std::string> KeptFiles::Restore()
{
    std::vector<std::string> putBack;
    std::error_code ec;
    for (const Entry& e : m_entries) {
        if (e.file.readByRun && !e.keep.empty() && fs::equivalent(e.file.path, e.keep, ec)) {
            fs::remove(e.keep, ec); // still there, untouched
            continue;
        }
        if (Present(e.file.path))
            fs::remove(e.file.path, ec);
        if (!e.keep.empty()) {
            fs::rename(e.keep, e.file.path, ec);
            putBack.push_back(e.file.path);
        }
    }
    m_entries.clear();
    m_open = false;
    return putBack;
}

void KeptFiles::Commit()
{
    std::error_code ec;
    for (const Entry& e : m_entries) {
        if (e.keep.empty())
            continue;
        if (e.file.readByRun || e.file.replaced || Present(e.file.path))
            fs::remove(e.keep, ec);
        else
            fs::rename(e.keep, e.file.path, ec); // not the run's to replace, and it wrote none
    }
    m_entries.clear();
    m_open = false;
}
