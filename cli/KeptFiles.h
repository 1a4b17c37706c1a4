#pragma once
#include <string>
#include <vector>

// A file a run may write, replace or remove, as the file checks found it before the run.
struct GuardedFile {
    std::string path;
    bool readByRun = false;  // the run reads it too (mnf-inverse's statistics): kept by a link, left in place
    bool replaced = true;    // a successful run replaces it; false: put back if the run did not write it
};

// Keeps every file of the user's that a run may touch, until the run's end: moved aside (or
// linked, when the run reads it) to a hidden name in the same folder before the run; after a
// failed or cancelled run put back exactly as it was (bytes, owner, mode, the very file), with
// whatever the run left under the name removed; after a successful run the kept copies dropped.
// A run that ends any other way (an exception) counts as failed.
class KeptFiles {
public:
    KeptFiles() = default;
    ~KeptFiles();
    KeptFiles(const KeptFiles&) = delete;
    KeptFiles& operator=(const KeptFiles&) = delete;

    // Keeps each file that exists; the reason none is kept when one cannot be (nothing is then
    // moved), empty on success.
    std::string Keep(const std::vector<GuardedFile>& files);
    // The run failed: every name as it was before the run. The files of the user's put back where
    // the run had replaced or removed them.
    std::vector<std::string> Restore();
    // The run succeeded: the files it replaced are its own now.
    void Commit();

private:
    struct Entry {
        GuardedFile file;
        std::string keep; // hidden name of the user's file; empty when there was none
    };
    std::vector<Entry> m_entries;
    bool m_open = false;
};
