// Nothing of the user's is lost: every refused, failed or cancelled run leaves the folder exactly as
// it was (names, bytes, modes, owners), and what cannot end well is refused before anything runs.
#include "AlgoHarness.h"
#include "CommandLine.h"
#include "KeptFiles.h"
#include "StatsFiles.h"
#include "TestSupport.h"
#include "frame/PCARecords.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

using namespace tavtest;
namespace fs = std::filesystem;

namespace {

struct Outcome {
    int status = -1;
    std::string err;
};

Outcome Tav(const TempDir& dir, const std::vector<std::string>& args)
{
    std::string cmd = "cd '" + dir.path().string() + "' && '" TAV_BIN_DIR "/tavtransform'";
    for (size_t i = 0; i < args.size(); ++i)
        cmd += (i == 1 ? " -q '" : " '") + args[i] + "'";
    const std::string err = dir.path().parent_path().string() + "/tav-kept-stderr-" + std::to_string(getpid());
    const int raw = std::system((cmd + " > /dev/null 2> '" + err + "' < /dev/null").c_str());
    Outcome o{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadFile(err)};
    std::remove(err.c_str());
    return o;
}

// Every entry under the folder: its bytes (files), mode and owner.
using Listing = std::map<std::string, std::tuple<std::string, unsigned, unsigned>>;
Listing List(const TempDir& dir)
{
    Listing l;
    for (const auto& e : fs::recursive_directory_iterator(dir.path())) {
        struct stat st{};
        lstat(e.path().c_str(), &st);
        l[fs::relative(e.path(), dir.path()).string()] = {
            e.is_regular_file() ? ReadFile(e.path().string()) : std::string(), st.st_mode, st.st_uid};
    }
    return l;
}

std::string Differences(const Listing& before, const Listing& after)
{
    std::string d;
    for (const auto& [name, entry] : before)
        if (!after.count(name))
            d += " lost " + name;
        else if (after.at(name) != entry)
            d += " changed " + name;
    for (const auto& [name, entry] : after)
        if (!before.count(name))
            d += " left " + name;
    return d;
}

void WriteDoubles(const std::string& path, const std::vector<double>& v)
{
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(v.data()), std::streamsize(v.size() * 8));
}

// A PCA statistics file for n bands with these means and eigenvectors (row = band).
std::vector<double> PcaStats(int n, const std::vector<double>& means, const std::vector<double>& vectors)
{
    std::vector<double> v(2 * n * n + 3 * n + 1, 0.0);
    v[0] = n;
    std::copy(means.begin(), means.end(), v.begin() + 1);
    std::copy(vectors.begin(), vectors.end(), v.begin() + 1 + n + n * n);
    return v;
}

class Kept : public ::testing::Test {
protected:
    // The user's folder: scenes, statistics and results of earlier runs, an existing OUTPUT, a
    // read-only folder and a write-protected statistics file of someone else's.
    static void SetUpTestSuite()
    {
        const TempDir& d = s_dir;
        const auto ramp = [](int b, int x, int y) { return (b + 1) * 20.0 + x * (b + 2) + y * y % (7 + b); };
        WriteRaster(d.file("in.tif"), Shape(40, 30, 6, GDT_Byte), ramp);
        WriteRaster(d.file("f.tif"), Shape(40, 30, 4, GDT_Float32), ramp);
        WriteRaster(d.file("huge.tif"), Shape(9, 7, 1, GDT_Float32), [](int, int x, int) { return x == 3 ? -1e38 : 1e38; });
        for (const auto& [name, band, value] : {std::tuple{"nan.tif", 1, NAN}, {"inf.tif", 2, INFINITY}, {"const.tif", 2, 7.0}})
            WriteRaster(d.file(name), Shape(40, 30, 4, GDT_Float32), [&, band = band, value = value](int b, int x, int y) {
                return b == band && (std::strcmp(name, "const.tif") == 0 || (x == 5 && y == 5)) ? value : ramp(b, x, y);
            });
        ASSERT_EQ(std::system(("cd '" + d.path().string() + "' && gdal_translate -q -of ENVI in.tif in.img && "
                               "gdal_translate -q -of PNG -b 1 in.tif a.png && head -c 3000 in.tif > trunc.tif && "
                               "cp in.tif \"$(printf 'x\\357\\277\\275.tif')\"").c_str()), 0);
        for (const std::vector<std::string>& run : std::vector<std::vector<std::string>>{
                 {"mnf", "-stats", "s.sta", "in.tif", "c.tif"}, {"pca", "-stats", "p.sta", "in.tif", "pc.tif"},
                 {"pca", "-stats", "p4.sta", "f.tif", "p4.tif"}, {"mnf", "-stats", "mc.sta", "const.tif", "mc.tif"}})
            ASSERT_EQ(Tav(d, run).status, 0) << run[0];
        std::vector<double> identity(16, 0.0);
        for (int i = 0; i < 4; ++i)
            identity[i * 5] = 1.0;
        std::vector<double> repeated = identity;
        std::tie(repeated[4], repeated[5]) = std::make_pair(1.0, 0.0); // band 2 weighs in as band 1 does
        WriteDoubles(d.file("pnan.sta"), PcaStats(4, {1, NAN, 3, 4}, identity));
        WriteDoubles(d.file("psing.sta"), PcaStats(4, {1, 2, 3, 4}, repeated));
        WriteText(d.file("o.tif"), "the user's earlier result");
        WriteText(d.file("o.tfw"), "the user's earlier world file");
        chmod(d.file("o.tif").c_str(), 0640);
        WriteText(d.file("old.sta"), "someone else's statistics");
        chmod(d.file("old.sta").c_str(), 0444);
        ASSERT_EQ(chown(d.file("old.sta").c_str(), 12345, 12345), 0);
        fs::create_directory(d.file("ro"));
        chmod(d.file("ro").c_str(), 0555);
    }
    static void TearDownTestSuite() { chmod(s_dir.file("ro").c_str(), 0755); }

    static inline TempDir s_dir;
};

// Every case of a run that must not go ahead, or that fails: its status and message, and the
// folder as it was, the existing OUTPUT (mode 0640) and statistics files included.
TEST_F(Kept, RefusedAndFailedRunsLeaveEveryFileAsItWas)
{
    const struct { std::vector<std::string> args; int status; std::string message; } cases[] = {
        // The statistics file survives ordinary failures of mnf.
        {{"mnf", "-of", "PDF", "-stats", "s.sta", "in.tif", "o.tif"}, 1, "OutFile Creat Fail!"},
        {{"mnf", "-stats", "s.sta", "in.tif", "ro/o.tif"}, 2, "ro' of OUTPUT is not writable"},
        {{"mnf", "-stats", "s.sta", "trunc.tif", "o.tif"}, 1, "TIFFReadEncodedStrip() failed"},
        {{"mnf", "-of", "ENVI", "-stats", "s.sta", "trunc.tif", "old.img"}, 1, "TIFFReadEncodedStrip() failed"},
        // Statistics that could not be written, or are not the user's to replace.
        {{"mnf", "-stats", "ro/m.sta", "in.tif", "o.tif"}, 2, "ro' of the statistics file is not writable"},
        {{"pca", "-stats", "old.sta", "in.tif", "o.tif"}, 2, "old.sta' is write-protected or not yours"},
        // The quicklook against everything else.
        {{"fft", "-b", "1", "-quicklook", "a.png", "a.png", "fa.tif"}, 2, "the quicklook is the same file as INPUT"},
        {{"fft", "-b", "1", "-quicklook", "o.png", "in.tif", "o.png"}, 2, "OUTPUT and the quicklook are the same file"},
        {{"pca", "-stats", "s.png", "-quicklook", "s.png", "in.tif", "o.tif"}, 2, "statistics file and the quicklook are"},
        {{"fft", "-b", "1", "-quicklook", "no/q.png", "in.tif", "o.tif"}, 2, "no' of the quicklook does not exist"},
        {{"fft", "-b", "1", "-quicklook", "", "in.tif", "o.tif"}, 2, "option -quicklook needs a value"},
        // Side files of the output driver.
        {{"kt", "-of", "ENVI", "in.img", "in.bsq"}, 2, "side file 'in.hdr' of OUTPUT is the same file as"},
        {{"pca", "-of", "ENVI", "-stats", "o.hdr", "in.tif", "o.img"}, 2, "side file 'o.hdr' of OUTPUT are the same"},
        {{"pca", "-of", "ENVI", "-stats", "o.img.aux.xml", "in.tif", "o.img"}, 2, "side file 'o.img.aux.xml'"},
        {{"mnf", "-co", "TFW=YES", "-stats", "s.sta", "trunc.tif", "o.tif"}, 1, "TIFFReadEncodedStrip() failed"},
        // Names that would not reach the transforms unchanged.
        {{"kt", "x\xef\xbf\xbd.tif", "x\xff.tif"}, 2, "'x\\xff.tif' is not valid UTF-8"},
        // Runs that cannot work, with an existing OUTPUT.
        {{"fft", "-b", "999", "in.tif", "o.tif"}, 2, "option -b: INPUT has only 6 bands, not 999"},
        {{"dwt-inverse", "in.tif", "o.tif"}, 1, "ERROR 1: Datatype Error!"},
        {{"mnf-inverse", "-stats", "s.sta", "a.png", "o.tif"}, 2, "describes 6 bands, but INPUT has 1"},
        // Values that cannot be represented.
        // Without masks, which would leave the NaN pixels out.
        {{"pca", "-nomask", "-stats", "n.sta", "nan.tif", "o.tif"}, 1, "band 2 of the scene holds NaN or infinite values"},
        {{"mnf", "-nomask", "-stats", "n.sta", "inf.tif", "o.tif"}, 1, "band 3 of the scene holds NaN or infinite values"},
        {{"pca", "-nomask", "-stats-only", "-stats", "s.sta", "nan.tif"}, 1, "band 2 of the scene holds NaN"},
        {{"pca", "-corr", "-stats", "s.sta", "const.tif", "o.tif"}, 1, "band 3 is constant, so its correlations"},
        {{"pca-inverse", "-stats", "pnan.sta", "p4.tif", "o.tif"}, 1, "holds values that are not numbers"},
        {{"pca-inverse", "-stats", "psing.sta", "p4.tif", "o.tif"}, 1, "bands 1 and 2 depend on each other"},
        {{"mnf-inverse", "-stats", "mc.sta", "mc.tif", "o.tif"}, 1, "band 3 carries nothing the others do not"},
        {{"pca-inverse", "-stats", "p4.sta", "pc.tif", "o.tif"}, 2, "describes 4 bands, but INPUT has 6"},
        {{"kt", "-of", "PNG", "in.tif", "o.png"}, 2, "PNG cannot hold the Float32 values"},
        {{"fft", "huge.tif", "o.tif"}, 2, "INPUT band 1 holds values up to 1e+38; the single-precision spectrum"},
        {{"fft", "-b", "1", "-b", "2", "nan.tif", "o.tif"}, 2, "INPUT band 2 holds NaN or infinite values"},
        // Smaller points.
        {{"fft", "in.tif", ""}, 2, "OUTPUT is an empty file name"},
        {{"pca", "-stats", "a.sta", "-stats", "b.sta", "in.tif", "o.tif"}, 2, "option -stats is given twice"},
    };
    for (const auto& c : cases) {
        const Listing before = List(s_dir);
        const Outcome r = Tav(s_dir, c.args);
        std::string line;
        for (const std::string& a : c.args)
            line += a + " ";
        EXPECT_EQ(r.status, c.status) << line << "\n" << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << line << "\n" << r.err;
        EXPECT_EQ(Differences(before, List(s_dir)), "") << line;
    }
}

// A successful run replaces the user's OUTPUT and statistics file and leaves no kept copy; pca
// centres by default, so pca then pca-inverse gives the input back; a statistics file that its
// inverse cannot use is said at once.
TEST_F(Kept, SuccessfulRunsReplaceTheFilesAndRoundTrip)
{
    const TempDir dir;
    fs::copy_file(s_dir.file("f.tif"), dir.file("f.tif"));
    fs::copy_file(s_dir.file("const.tif"), dir.file("const.tif"));
    WriteText(dir.file("s.sta"), "old statistics");
    WriteText(dir.file("o.tif"), "old result");
    ASSERT_EQ(Tav(dir, {"pca", "-stats", "s.sta", "f.tif", "o.tif"}).status, 0);
    ASSERT_EQ(Tav(dir, {"pca-inverse", "-stats", "s.sta", "o.tif", "back.tif"}).status, 0);
    EXPECT_EQ(fs::file_size(dir.file("s.sta")), 8u * (2 * 16 + 3 * 4 + 1));
    for (int b = 1; b <= 4; ++b) {
        const auto in = ReadBand(dir.file("f.tif"), b), back = ReadBand(dir.file("back.tif"), b);
        for (size_t i = 0; i < in.size(); ++i)
            ASSERT_NEAR(back[i], in[i], 1e-3 * (1 + std::fabs(in[i]))) << "band " << b << " pixel " << i;
    }
    const Outcome warned = Tav(dir, {"mnf", "-stats", "m.sta", "const.tif", "m.tif"});
    EXPECT_EQ(warned.status, 0);
    EXPECT_NE(warned.err.find("Warning: mnf-inverse cannot use the statistics file"), std::string::npos) << warned.err;
    for (const auto& e : fs::directory_iterator(dir.path()))
        EXPECT_EQ(e.path().filename().string().find(".kept-"), std::string::npos) << e.path();
}

// A statistics file that is not what the run meant to write fails it: missing, short, garbled.
TEST_F(Kept, WrittenStatisticsAreCheckedAfterTheRun)
{
    const TempDir dir;
    const std::string in = s_dir.file("in.tif");
    const struct { std::string command; std::function<void(const std::string&)> spoil; std::string message; } cases[] = {
        {"pca", [](const std::string& f) { std::remove(f.c_str()); }, "was not written"},
        {"pca", [](const std::string& f) { fs::resize_file(f, 100); }, "holds 100 bytes, not the 728"},
        {"mnf", [](const std::string& f) { fs::resize_file(f, 40); }, "does not hold the 6-band matrix"},
        {"mnf", [](const std::string& f) { std::remove(f.c_str()); }, "was not written"},
    };
    for (const auto& c : cases) {
        const std::string stats = dir.file(c.command + ".sta");
        ASSERT_EQ(Tav(dir, {c.command, "-stats", stats, in, dir.file("o.tif")}).status, 0);
        ParseResult parsed = ParseCommandLine({c.command, "-stats", stats, in, dir.file("o2.tif")});
        ASSERT_EQ(parsed.kind, ParseResult::Run);
        EXPECT_EQ(CheckStatisticsWritten(parsed.request).status, 0) << c.command;
        c.spoil(stats);
        const StatsVerdict v = CheckStatisticsWritten(parsed.request);
        EXPECT_EQ(v.status, 1) << c.command << " " << c.message;
        EXPECT_NE(v.message.find(c.message), std::string::npos) << v.message;
    }
}

// Null vectors of hand-made matrices: the bands they combine, none for an invertible one.
TEST(DependentBands, NameTheBandsOfEveryNullVector)
{
    const struct { std::vector<double> m; std::vector<int> bands; } cases[] = {
        {{2, 0, 0, 0, 3, 0, 0, 0, 4}, {}},
        {{1, 2, 0, 2, 4, 0, 0, 0, 1}, {1, 2}},           // column 2 = 2 x column 1
        {{1, 0, 0, 0, 0, 0, 0, 0, 1}, {2}},              // band 2 weighs nothing
        {{0, 0, 0, 0, 0, 0, 0, 0, 0}, {1, 2, 3}},
        {{1, 1, 2, 0, 1, 1, 1, 0, 1}, {1, 2, 3}},        // column 3 = column 1 + column 2
        {{1, 1, 0, 1, 1 + 1e-12, 0, 0, 0, 1}, {1, 2}},   // rank 2 up to rounding
    };
    for (const auto& c : cases)
        EXPECT_EQ(DependentBands(c.m, 3), c.bands);
}

// Cancelled at chosen polls of each run that writes or reads a statistics file (the fault suite's
// poll hook, not timing), with the host keeping the user's files: afterwards the statistics file
// and OUTPUT the user had are there, byte for byte, with their modes.
TEST_F(Kept, CancelledRunsAtAnyPollGiveTheUserTheirFilesBack)
{
    const TempDir dir;
    fs::copy_file(s_dir.file("in.tif"), dir.file("in.tif"));
    fs::copy_file(s_dir.file("c.tif"), dir.file("c.tif"));
    fs::copy_file(s_dir.file("pc.tif"), dir.file("pc.tif"));
    const QString in = dir.qfile("in.tif"), out = dir.qfile("o.tif"), stats = dir.qfile("s.sta");
    stTransInfo mnf = TransRecord(1, true, dir.file("in.tif"), dir.file("o.tif"));
    mnf.strStatFile = stats;
    stTransInfo mnfInverse = TransRecord(1, false, dir.file("c.tif"), dir.file("o.tif"));
    mnfInverse.strStatFile = stats;
    const struct { const char* name; boost::any record; std::string statsSource; bool readsStats; } cases[] = {
        {"pca", stForwardPCAInfo{in, stats, out, "GTiff", 5, true, 6, true, false, {}, {}, {}}, "p.sta", false},
        {"pca -stats-only", stForwardPCAInfo{in, stats, out, "GTiff", 5, true, 0, true, true, {}, {}, {}}, "p.sta", false},
        {"mnf", mnf, "s.sta", false},
        {"mnf-inverse", mnfInverse, "s.sta", true},
        {"pca-inverse", stInversePCAInfo{dir.qfile("pc.tif"), stats, out, "GTiff", 5}, "p.sta", true},
    };
    for (const auto& c : cases)
        for (long long k = 1;; k += 3) {
            fs::copy_file(s_dir.file(c.statsSource), dir.file("s.sta"), fs::copy_options::overwrite_existing);
            chmod(dir.file("s.sta").c_str(), 0604);
            WriteText(dir.file("o.tif"), "the user's earlier result");
            chmod(dir.file("o.tif").c_str(), 0640);
            const Listing before = List(dir);
            bool ok = false;
            long long polls = 0;
            {
                KeptFiles kept;
                ASSERT_EQ(kept.Keep({{dir.file("o.tif"), false, true}, {dir.file("s.sta"), c.readsStats, !c.readsStats}}), "");
                AlgoHarness h;
                h.algo().Context().SetPollHook([&] {
                    if (++polls == k)
                        h.algo().Terminate();
                });
                ok = h.Run(c.record);
                if (ok)
                    kept.Commit();
            } // not committed: put back, as the host does after a failed or cancelled run
            if (ok) {
                EXPECT_GT(k, 1) << c.name << " never polled";
                break;
            }
            ASSERT_EQ(Differences(before, List(dir)), "") << c.name << " cancelled at poll " << k;
        }
}

} // namespace
