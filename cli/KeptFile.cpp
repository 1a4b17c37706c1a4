#include "KeptFile.h"

#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

KeptFile::KeptFile(std::string path) : m_path(std::move(path))
{
    std::error_code ec;
    if (m_path.empty() || !fs::is_regular_file(m_path, ec))
        return;
    const fs::path p(m_path);
    std::string name(".");
    name.append(p.filename().string()).append(".kept-").append(std::to_string(getpid()));
    const fs::path keep = p.parent_path() / name;
    fs::create_hard_link(p, keep, ec);
    if (!ec)
        m_keep = keep.string();
}

KeptFile::~KeptFile()
{
    if (m_keep.empty())
        return;
    std::error_code ec;
    if (fs::exists(m_path, ec))
        fs::remove(m_keep, ec);
    else
        fs::rename(m_keep, m_path, ec);
}
