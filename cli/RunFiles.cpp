#include "RunFiles.h"

#include "OrvDataSource/DatasetFactory.h"

#include <QString>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

bool IsFormat(const std::string& format, std::initializer_list<const char*> names)
{
    for (const char* n : names)
        if (strcasecmp(format.c_str(), n) == 0)
            return true;
    return false;
}

// `path` without its extension, as GDAL's CPLResetExtension cuts it; the whole path when it has none.
std::string Stem(const std::string& path)
{
    const fs::path p(path);
    return p.has_extension() ? (p.parent_path() / p.stem()).string() : path;
}

bool Present(const std::string& path)
{
    std::error_code ec;
    return fs::exists(fs::symlink_status(path, ec));
}

bool MayWrite(const std::string& path)
{
    struct stat st{};
    if (stat(path.c_str(), &st) != 0 || access(path.c_str(), W_OK) != 0)
        return false;
    return geteuid() != 0 || (st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) != 0;
}

// Bytes outside printable ASCII as \xNN, so a message never carries an invalid sequence.
std::string Printable(const std::string& s)
{
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned char c : s)
        if (c >= 0x20 && c < 0x7f)
            out += static_cast<char>(c);
        else
            out += std::string("\\x") + hex[c >> 4] + hex[c & 15];
    return out;
}

} // namespace

std::vector<std::string> DriverSideFiles(const std::string& output, const std::string& format, const std::string& input,
                                         const std::vector<std::string>& creationOptions)
{
    // Any driver keeps what it cannot store inside the file in GDAL's own side files.
    std::vector<std::string> files = {output + ".aux.xml", output + ".ovr", output + ".msk"};
    const std::string stem = Stem(output);
    if (IsFormat(format, {"ENVI", "EHdr", "BIL", "GenBin", "ISCE", "PAux"}))
        files.insert(files.end(), {stem + ".hdr", output + ".hdr"});
    if (IsFormat(format, {"EHdr"}))
        files.insert(files.end(), {stem + ".prj", stem + ".stx", stem + ".clr"});
    if (IsFormat(format, {"HFA"}))
        files.insert(files.end(), {stem + ".ige", stem + ".rrd"});
    // TFW=YES (GTiff) and WORLDFILE=YES (PNG, JPEG and the like) write a world file beside it.
    for (const std::string& option : creationOptions)
        if (strncasecmp(option.c_str(), "TFW=", 4) == 0 || strncasecmp(option.c_str(), "WORLDFILE=", 10) == 0) {
            const std::string value = option.substr(option.find('=') + 1);
            if (strcasecmp(value.c_str(), "NO") != 0 && strcasecmp(value.c_str(), "FALSE") != 0 &&
                strcasecmp(value.c_str(), "OFF") != 0 && value != "0")
                files.insert(files.end(), {stem + ".tfw", stem + ".wld", stem + ".pgw", stem + ".jgw"});
        }
    // The RPC side file is copied under the output's stem with the suffix the input's has.
    for (const char* suffix : {".RPB", ".rpb", "_rpc.txt", "_RPC.TXT"})
        if (Present(Stem(input) + suffix))
            files.push_back(stem + suffix);
    return files;
}

std::vector<std::string> RasterSideFiles(const std::string& path)
{
    std::vector<std::string> files;
    if (!Present(path))
        return files;
    auto ds = OrvDataSource::DatasetFactory::Instance()->OpenRasterDataset(QString::fromStdString(path),
                                                                            OrvDataSource::OM_Read);
    if (!ds)
        return files;
    // Only files named after it: a VRT lists its sources too, which are not its to replace.
    const fs::path self = fs::absolute(path);
    const std::string stem = fs::path(Stem(self.string())).filename().string();
    std::error_code ec;
    for (const QString& f : ds->GetFileList()) {
        const fs::path file = fs::absolute(f.toStdString());
        if (!fs::equivalent(file, self, ec) && file.parent_path() == self.parent_path() &&
            file.filename().string().rfind(stem, 0) == 0)
            files.push_back(file.string());
    }
    return files;
}

std::string WritableProblem(const std::string& role, const std::string& path)
{
    if (path.rfind("/vsi", 0) == 0)
        return {};
    if (Present(path) && !MayWrite(path))
        return role + " '" + path + "' is write-protected or not yours to write; refusing to replace it";
    const std::string folder = fs::absolute(path).parent_path().string();
    if (!MayWrite(folder))
        return "the folder '" + folder + "' of " + role + " is not writable";
    return {};
}

std::string EncodingProblem(const std::string& role, const std::string& path)
{
    if (QString::fromStdString(path).toStdString() == path)
        return {};
    return role + " '" + Printable(path) + "' is not valid UTF-8; the transforms take file names as Unicode text, "
           "so it would reach them changed. Rename the file";
}
