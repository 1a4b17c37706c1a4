// Scenes as they are delivered: tiled, compressed and stacked inputs give the results of a plain
// striped file, no block is decoded twice in a pass, and -co reaches the output.
#include "CommandLine.h"
#include "CreationOptions.h"
#include "PluginLoader.h"
#include "TestSupport.h"

#include "OrvAlgo/IOrvAlgo.h"
#include "OrvDataSource/BlockCache.h"
#include "OrvDataSource/DatasetFactory.h"
#include "OrvDataSource/GdalErrors.h"

#include <cpl_conv.h>
#include <cpl_string.h>
#include <cpl_vsi.h>
#include <gdal_utils.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

using tavtest::TempDir;

namespace {

// ---- a file system that counts what is read from where ----

// "/vsicount/PATH" is PATH, with every read's offset and length kept per file.
class CountingFs {
public:
    static CountingFs& Instance()
    {
        static CountingFs fs;
        return fs;
    }
    static std::string Path(const std::string& path) { return "/vsicount/" + path; }

    void Reset()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_reads.clear();
        m_written.clear();
    }
    // How often each block of `path` (a tiled GTiff) had its bytes read: the most and the fewest.
    std::pair<int, int> BlockReads(const std::string& path)
    {
        std::vector<vsi_l_offset> starts = BlockOffsets(path);
        std::lock_guard<std::mutex> lock(m_mutex);
        // Reads before the first block are of the header and directories.
        const vsi_l_offset data = starts.empty() ? 0 : starts.front();
        int most = 0, fewest = 1 << 30;
        for (vsi_l_offset start : starts) {
            int n = 0;
            for (const auto& [offset, size] : m_reads[path])
                n += offset >= data && start >= offset && start < offset + size;
            most = std::max(most, n);
            fewest = std::min(fewest, n);
        }
        return {most, starts.empty() ? 0 : fewest};
    }
    long long BytesWritten(const std::string& path)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_written[path];
    }

private:
    struct Handle {
        VSILFILE* file;
        std::string path;
    };

    CountingFs()
    {
        VSIFilesystemPluginCallbacksStruct* cb = VSIAllocFilesystemPluginCallbacksStruct();
        cb->pUserData = this;
        cb->open = [](void* self, const char* name, const char* access) -> void* {
            VSILFILE* f = VSIFOpenL(name, access);
            return f ? new Handle{f, static_cast<CountingFs*>(self)->Real(name)} : nullptr;
        };
        cb->stat = [](void*, const char* name, VSIStatBufL* buf, int flags) {
            return VSIStatExL(name, buf, flags);
        };
        cb->unlink = [](void*, const char* name) { return VSIUnlink(name); };
        cb->tell = [](void* h) { return VSIFTellL(static_cast<Handle*>(h)->file); };
        cb->seek = [](void* h, vsi_l_offset off, int whence) { return VSIFSeekL(static_cast<Handle*>(h)->file, off, whence); };
        cb->read = [](void* h, void* buf, size_t size, size_t count) {
            auto* handle = static_cast<Handle*>(h);
            const vsi_l_offset at = VSIFTellL(handle->file);
            const size_t n = VSIFReadL(buf, size, count, handle->file);
            Instance().Record(handle->path, at, static_cast<vsi_l_offset>(size) * count);
            return n;
        };
        cb->write = [](void* h, const void* buf, size_t size, size_t count) {
            auto* handle = static_cast<Handle*>(h);
            Instance().Wrote(handle->path, static_cast<long long>(size) * count);
            return VSIFWriteL(buf, size, count, handle->file);
        };
        cb->eof = [](void* h) { return VSIFEofL(static_cast<Handle*>(h)->file); };
        cb->flush = [](void* h) { return VSIFFlushL(static_cast<Handle*>(h)->file); };
        cb->truncate = [](void* h, vsi_l_offset size) { return VSIFTruncateL(static_cast<Handle*>(h)->file, size); };
        cb->close = [](void* h) {
            auto* handle = static_cast<Handle*>(h);
            const int r = VSIFCloseL(handle->file);
            delete handle;
            return r;
        };
        VSIInstallPluginHandler("/vsicount/", cb);
        VSIFreeFilesystemPluginCallbacksStruct(cb);
    }
    std::string Real(const char* name) const { return name; }
    void Record(const std::string& path, vsi_l_offset at, vsi_l_offset size)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_reads[path].emplace_back(at, size);
    }
    void Wrote(const std::string& path, long long bytes)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_written[path] += bytes;
    }
    static std::vector<vsi_l_offset> BlockOffsets(const std::string& path)
    {
        std::vector<vsi_l_offset> starts;
        GDALDataset* ds = GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY);
        if (!ds)
            return starts;
        for (int b = 1; b <= ds->GetRasterCount(); ++b) {
            GDALRasterBand* band = ds->GetRasterBand(b);
            int bw = 0, bh = 0;
            band->GetBlockSize(&bw, &bh);
            for (int by = 0; by * bh < band->GetYSize(); ++by)
                for (int bx = 0; bx * bw < band->GetXSize(); ++bx)
                    if (const char* v = band->GetMetadataItem(CPLSPrintf("BLOCK_OFFSET_%d_%d", bx, by), "TIFF"))
                        starts.push_back(std::strtoull(v, nullptr, 10));
        }
        GDALClose(ds);
        std::sort(starts.begin(), starts.end());
        starts.erase(std::unique(starts.begin(), starts.end()), starts.end());
        return starts;
    }

    std::mutex m_mutex;
    std::map<std::string, std::vector<std::pair<vsi_l_offset, vsi_l_offset>>> m_reads;
    std::map<std::string, long long> m_written;
};

// ---- runs in this process, as the command line makes them ----

struct InProcess {
    int status = -1; // 0 ran, 1 failed, 2 usage error
    std::string text;
};

InProcess RunCommand(const std::vector<std::string>& words, const std::function<void()>& beforeRun = {})
{
    std::vector<std::string> args(words);
    args.insert(args.begin() + 1, "-q");
    const ParseResult parsed = ParseCommandLine(args);
    if (parsed.kind != ParseResult::Run)
        return {2, parsed.text};
    static const LoadedPlugin plugin = LoadPlugin({TAV_BIN_DIR "/../lib/libTavTransformFunc.so"});
    if (!plugin.create)
        return {1, plugin.error};
    std::unique_ptr<OrvAlgo::IOrvAlgo> algo(plugin.create());
    OrvAlgo::ProgressSignal signal;
    algo->SetProgressSignal(&signal);
    algo->SetParams(parsed.request.record);
    ApplyCreationOptions(parsed.request);
    OrvDataSource::ClearGdalError();
    if (beforeRun)
        beforeRun();
    const bool ok = algo->Execute();
    OrvDataSource::DatasetFactory::SetCreationOptions({}, {});
    int code = 0;
    QString text;
    algo->GetErrorInfo(code, text);
    return {ok ? 0 : 1, text.toStdString()};
}

// ---- layouts ----

void Translate(const std::string& from, const std::string& to, const std::vector<std::string>& words)
{
    CPLStringList argv;
    for (const auto& w : words)
        argv.AddString(w.c_str());
    GDALTranslateOptions* options = GDALTranslateOptionsNew(argv.List(), nullptr);
    GDALDatasetH src = GDALOpen(from.c_str(), GA_ReadOnly);
    ASSERT_NE(src, nullptr) << from;
    GDALDatasetH out = GDALTranslate(to.c_str(), src, options, nullptr);
    ASSERT_NE(out, nullptr) << to;
    GDALClose(out);
    GDALClose(src);
    GDALTranslateOptionsFree(options);
}

const std::vector<std::string> kTiledDeflate = {"-co", "TILED=YES", "-co", "BLOCKXSIZE=64", "-co", "BLOCKYSIZE=64",
                                               "-co", "COMPRESS=DEFLATE"};

enum class Layout { Striped, TiledPixel, TiledBand, StackOfTiledBands };

const char* Name(Layout l)
{
    switch (l) {
    case Layout::Striped: return "striped";
    case Layout::TiledPixel: return "tiled_pixel";
    case Layout::TiledBand: return "tiled_band";
    case Layout::StackOfTiledBands: return "stack";
    }
    return "";
}

// `striped` (an uncompressed striped GTiff) rewritten in `layout` under `dir`; the path to read.
std::string InLayout(const TempDir& dir, const std::string& striped, Layout layout, const std::string& tag)
{
    const std::string base = dir.file(tag + "_" + Name(layout));
    std::vector<std::string> words = kTiledDeflate;
    switch (layout) {
    case Layout::Striped:
        return striped;
    case Layout::TiledPixel:
    case Layout::TiledBand:
        words.insert(words.end(), {"-co", layout == Layout::TiledBand ? "INTERLEAVE=BAND" : "INTERLEAVE=PIXEL"});
        Translate(striped, base + ".tif", words);
        return base + ".tif";
    case Layout::StackOfTiledBands: {
        const int bands = tavtest::Info(striped).bands;
        CPLStringList files;
        for (int b = 1; b <= bands; ++b) {
            const std::string one = base + "_b" + std::to_string(b) + ".tif";
            std::vector<std::string> w = words;
            w.insert(w.end(), {"-b", std::to_string(b)});
            Translate(striped, one, w);
            files.AddString(one.c_str());
        }
        const char* vrtArgs[] = {"-separate", nullptr};
        GDALBuildVRTOptions* options = GDALBuildVRTOptionsNew(const_cast<char**>(vrtArgs), nullptr);
        GDALDatasetH vrt = GDALBuildVRT((base + ".vrt").c_str(), bands, nullptr, files.List(), options, nullptr);
        GDALBuildVRTOptionsFree(options);
        EXPECT_NE(vrt, nullptr);
        GDALClose(vrt);
        return base + ".vrt";
    }
    }
    return {};
}

void ExpectSameRaster(const std::string& expected, const std::string& actual, const std::string& what)
{
    const tavtest::RasterInfo a = tavtest::Info(expected), b = tavtest::Info(actual);
    ASSERT_EQ(a.bands, b.bands) << what;
    ASSERT_EQ(a.width, b.width) << what;
    ASSERT_EQ(a.type, b.type) << what;
    for (int band = 1; band <= a.bands; ++band)
        ASSERT_EQ(tavtest::ReadBand(expected, band), tavtest::ReadBand(actual, band)) << what << " band " << band;
}

// A 6-band UInt16 scene that no tile size divides.
std::string Scene(const TempDir& dir, int width = 150, int height = 110)
{
    const std::string path = dir.file("scene.tif");
    tavtest::WriteRaster(path, tavtest::Shape(width, height, 6, GDT_UInt16),
                         [](int b, int x, int y) { return 200 + 40 * b + (x * 7 + y * 3) % 97 + ((x / 9 + y / 5) % 3) * 50; });
    return path;
}

// ---- every command on every layout ----

struct CommandCase {
    const char* command;
    std::vector<std::string> options;
    const char* from;  // the forward command whose striped output is the input; null: the scene
    const char* stats; // a statistics file: written by a forward run, read by an inverse
};

void PrintTo(const CommandCase& c, std::ostream* os) { *os << c.command; }

class EveryLayout : public ::testing::TestWithParam<CommandCase> {};

// The result on a tiled, compressed or stacked input is the striped input's, bit for bit.
TEST_P(EveryLayout, GivesTheStripedResult)
{
    const CommandCase& c = GetParam();
    TempDir dir;
    std::string input = Scene(dir);
    const std::string stats = c.stats ? dir.file(c.stats) : std::string();
    if (c.from) {
        std::vector<std::string> fwd = {c.from};
        if (c.stats)
            fwd.insert(fwd.end(), {"-stats", stats});
        fwd.insert(fwd.end(), {input, dir.file("forward.tif")});
        ASSERT_EQ(RunCommand(fwd).status, 0);
        input = dir.file("forward.tif");
    }
    std::string expected;
    for (Layout layout : {Layout::Striped, Layout::TiledPixel, Layout::TiledBand, Layout::StackOfTiledBands}) {
        const std::string in = InLayout(dir, input, layout, "in");
        const std::string out = dir.file(std::string("out_") + Name(layout) + ".tif");
        std::vector<std::string> words = {c.command};
        words.insert(words.end(), c.options.begin(), c.options.end());
        const std::string ownStats = c.from ? stats : stats + Name(layout);
        if (c.stats)
            words.insert(words.end(), {"-stats", ownStats});
        words.insert(words.end(), {in, out});
        const InProcess run = RunCommand(words);
        ASSERT_EQ(run.status, 0) << Name(layout) << ": " << run.text;
        if (layout == Layout::Striped) {
            expected = out;
            continue;
        }
        ExpectSameRaster(expected, out, Name(layout));
        if (c.stats && !c.from) {
            EXPECT_EQ(tavtest::ReadFile(stats + "striped"), tavtest::ReadFile(ownStats)) << Name(layout);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    AllCommands, EveryLayout,
    ::testing::Values(CommandCase{"kt", {"-sensor", "etm"}, nullptr, nullptr}, CommandCase{"fft", {}, nullptr, nullptr},
                      CommandCase{"fft-inverse", {}, "fft", nullptr}, CommandCase{"dwt", {}, nullptr, nullptr},
                      CommandCase{"dwt-inverse", {}, "dwt", nullptr}, CommandCase{"mnf", {}, nullptr, "s.mnf"},
                      CommandCase{"mnf-inverse", {}, "mnf", "s.mnf"}, CommandCase{"pca", {}, nullptr, "s.sta"},
                      CommandCase{"pca-inverse", {}, "pca", "s.sta"}),
    [](const ::testing::TestParamInfo<CommandCase>& info) {
        std::string name = info.param.command;
        std::replace(name.begin(), name.end(), '-', '_');
        return name;
    });

// ---- blocks decoded per pass ----

struct PassCase {
    const char* command;
    std::vector<std::string> options;
    int passes;      // how often the run must read its input
    int pixelPasses; // the same from a pixel-interleaved file, whose tiles hold every band
};

void PrintTo(const PassCase& c, std::ostream* os) { *os << c.command; }

class DecodedOnce : public ::testing::TestWithParam<std::tuple<PassCase, Layout>> {};

// A tile row of the scene (6 bands × 1024 × 256 UInt16) is 3 MiB, more than the 2 MiB a striped
// scene is read with: a cache that does not follow the blocks decodes tiles again and again. The
// scene is larger than the cache, so a later pass cannot live on an earlier one's blocks.
TEST_P(DecodedOnce, EveryTileIsReadOncePerPass)
{
    if (OrvDataSource::BlockCache::UserSet())
        GTEST_SKIP() << "GDAL_CACHEMAX is set; the cache is the user's";
    const auto& [c, layout] = GetParam();
    TempDir dir;
    const std::string striped = Scene(dir, 1024, 1100);
    std::vector<std::string> tiled = {"-co", "TILED=YES", "-co", "BLOCKXSIZE=256", "-co", "BLOCKYSIZE=256",
                                      "-co", "COMPRESS=DEFLATE", "-co",
                                      layout == Layout::TiledBand ? "INTERLEAVE=BAND" : "INTERLEAVE=PIXEL"};
    const std::string in = dir.file("tiled.tif");
    Translate(striped, in, tiled);
    std::vector<std::string> words = {c.command};
    for (const std::string& o : c.options)
        words.push_back(o.find('.') != std::string::npos ? dir.file(o) : o);
    words.insert(words.end(), {CountingFs::Path(in), dir.file("out.tif")});
    CountingFs& fs = CountingFs::Instance();
    const InProcess run = RunCommand(words, [&] { fs.Reset(); });
    ASSERT_EQ(run.status, 0) << run.text;
    const auto [most, fewest] = fs.BlockReads(in);
    const int passes = layout == Layout::TiledPixel ? c.pixelPasses : c.passes;
    EXPECT_GE(fewest, 1) << "a tile was never read";
    EXPECT_LE(most, passes) << "a tile was decoded more than once in a pass";
}

INSTANTIATE_TEST_SUITE_P(
    Runs, DecodedOnce,
    ::testing::Combine(::testing::Values(PassCase{"kt", {"-sensor", "etm"}, 1, 1}, PassCase{"dwt", {}, 1, 1},
                                         PassCase{"fft", {}, 1, 6}, PassCase{"pca", {"-stats", "s.sta"}, 2, 2},
                                         PassCase{"mnf", {"-stats", "s.mnf"}, 3, 3}),
                       ::testing::Values(Layout::TiledPixel, Layout::TiledBand)),
    [](const auto& info) {
        return std::string(std::get<0>(info.param).command) + "_" + Name(std::get<1>(info.param));
    });

// ---- creation options ----

std::string Item(const std::string& path, const char* key, const char* domain, int band = 0)
{
    GDALDataset* ds = GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY);
    if (!ds)
        return "(not opened)";
    const char* v = band ? ds->GetRasterBand(band)->GetMetadataItem(key, domain) : ds->GetMetadataItem(key, domain);
    std::string value = v ? v : "";
    GDALClose(ds);
    return value;
}

std::pair<int, int> BlockSize(const std::string& path)
{
    GDALDataset* ds = GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY);
    int w = 0, h = 0;
    if (ds) {
        ds->GetRasterBand(1)->GetBlockSize(&w, &h);
        GDALClose(ds);
    }
    return {w, h};
}

struct CreationCase {
    const char* format;
    std::vector<std::string> co;
    const char* compression; // as GDAL reports it back
    std::pair<int, int> block;
    std::vector<std::string> run = {"kt", "-sensor", "etm"};
    int height = 300;
};

void PrintTo(const CreationCase& c, std::ostream* os) { *os << c.format; }

class CreationOptionsReach : public ::testing::TestWithParam<CreationCase> {};

// The options are in the file, its pixels are those of the plain output, and a tiled compressed
// output has each of its blocks compressed and written once.
TEST_P(CreationOptionsReach, TheFile)
{
    const CreationCase& c = GetParam();
    TempDir dir;
    const std::string scene = Scene(dir, 600, c.height);
    std::vector<std::string> plain = c.run;
    plain.insert(plain.end(), {scene, dir.file("plain.tif")});
    ASSERT_EQ(RunCommand(plain).status, 0);
    std::vector<std::string> words = c.run;
    words.insert(words.end(), {"-of", c.format});
    for (const auto& o : c.co)
        words.insert(words.end(), {"-co", o});
    const std::string out = dir.file("out.tif");
    words.insert(words.end(), {scene, CountingFs::Path(out)});
    CountingFs::Instance().Reset();
    const InProcess run = RunCommand(words);
    ASSERT_EQ(run.status, 0) << run.text;
    EXPECT_EQ(Item(out, "COMPRESSION", "IMAGE_STRUCTURE"), c.compression);
    EXPECT_EQ(BlockSize(out), c.block);
    ExpectSameRaster(dir.file("plain.tif"), out, c.format);
    if (std::string(c.format) == "GTiff") {
        // Each block written once: what went to the file is the file, give or take its directory.
        const long long size = static_cast<long long>(std::filesystem::file_size(out));
        EXPECT_LE(CountingFs::Instance().BytesWritten(out), size + 64 * 1024);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Outputs, CreationOptionsReach,
    ::testing::Values(
        CreationCase{"GTiff", {"TILED=YES", "COMPRESS=DEFLATE", "BLOCKXSIZE=256", "BLOCKYSIZE=128"}, "DEFLATE", {256, 128}},
        CreationCase{"GTiff", {"TILED=YES", "COMPRESS=ZSTD", "INTERLEAVE=BAND"}, "ZSTD", {256, 256}},
        CreationCase{"GTiff", {"COMPRESS=LZW", "BIGTIFF=YES"}, "LZW", {600, 1}},
        CreationCase{"COG", {"COMPRESS=DEFLATE", "BLOCKSIZE=128"}, "DEFLATE", {128, 128}},
        // Band after band into an output larger than the cache.
        CreationCase{"GTiff", {"TILED=YES", "COMPRESS=DEFLATE"}, "DEFLATE", {256, 256}, {"fft"}, 1200}),
    [](const auto& info) { return std::string(info.param.format) + "_" + std::to_string(info.index); });

struct BadOption {
    std::vector<std::string> words;
    const char* says;
};

void PrintTo(const BadOption& c, std::ostream* os) { *os << c.says; }

class BadCreationOption : public ::testing::TestWithParam<BadOption> {};

// A usage error naming the problem in GDAL's words; nothing is written.
TEST_P(BadCreationOption, IsAUsageErrorAndWritesNothing)
{
    TempDir dir;
    const std::string scene = Scene(dir, 20, 10);
    std::vector<std::string> words = {"kt"};
    words.insert(words.end(), GetParam().words.begin(), GetParam().words.end());
    words.insert(words.end(), {scene, dir.file("out.tif")});
    const InProcess run = RunCommand(words);
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.text.find(GetParam().says), std::string::npos) << run.text;
    EXPECT_FALSE(tavtest::Exists(dir.file("out.tif")));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadCreationOption,
    ::testing::Values(BadOption{{"-co", "COMPRESS=FOO"}, "FOO"}, BadOption{{"-co", "NOSUCHOPTION=1"}, "NOSUCHOPTION"},
                      BadOption{{"-co", "TILED"}, "NAME=VALUE"}, BadOption{{"-co"}, "NAME=VALUE"},
                      BadOption{{"-of", "COG", "-co", "BLOCKSIZE=banana"}, "BLOCKSIZE"}));

} // namespace
