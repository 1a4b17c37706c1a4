#pragma once
#include <string>

// Keeps a file of the user's that a failed run removes by its rules (the statistics file that
// mnf-inverse reads): a hard link beside it while the run goes, put back if the file is gone.
class KeptFile {
public:
    explicit KeptFile(std::string path);
    ~KeptFile();
    KeptFile(const KeptFile&) = delete;
    KeptFile& operator=(const KeptFile&) = delete;

private:
    std::string m_path;
    std::string m_keep;
};
