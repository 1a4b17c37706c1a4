#include "BandNames.h"
#include "MaskOptions.h"
#include "frame/stTasseledCapInfo.h"
#include "Quicklook.h"
#include "MaskScene.h"
#include "TestSupport.h"

#include <cpl_vsi.h>

#include <gdal_utils.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>

using tavtest::ReadFile;
using tavtest::TempDir;

namespace {

struct CliResult {
    int status = -1;
    std::string out, err;
};

std::string Quote(const std::string& s) { return "'" + s + "'"; }

std::string Joined(const std::vector<std::string>& args)
{
    std::string joined;
    for (const auto& a : args)
        joined += Quote(a) + " ";
    return joined;
}

CliResult RunCli(const TempDir& dir, const std::vector<std::string>& args)
{
    const std::string cmd = Quote(TAV_BIN_DIR "/tavtransform") + " " + Joined(args) + " > " +
                            Quote(dir.file("stdout.txt")) + " 2> " + Quote(dir.file("stderr.txt")) + " < /dev/null";
    const int raw = std::system(cmd.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadFile(dir.file("stdout.txt")), ReadFile(dir.file("stderr.txt"))};
}

// The same, for a command line written out as one string.
int Cli(const std::string& args)
{
    const int raw = std::system(("'" TAV_BIN_DIR "/tavtransform' " + args + " >/dev/null 2>&1").c_str());
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

std::string Scene(const TempDir& dir, int bands = 6, GDALDataType type = GDT_Byte, int side = 9,
                  const std::string& name = "scene.tif")
{
    const std::string path = dir.file(name);
    tavtest::WriteRaster(path, tavtest::Shape(side, side - 2, bands, type),
                         [](int b, int x, int y) { return b * 30 + x + y; });
    return path;
}

// A refused or failed run: its status and message, no output left, the input unchanged.
void ExpectRefused(const TempDir& dir, const std::vector<std::string>& args, int status, const std::string& message,
                   const std::string& input, const std::string& leftover)
{
    const std::string before = ReadFile(input);
    const CliResult r = RunCli(dir, args);
    EXPECT_EQ(r.status, status) << Joined(args) << "\n" << r.err;
    EXPECT_NE(r.err.find(message), std::string::npos) << Joined(args) << "\n" << r.err;
    EXPECT_EQ(r.err.find(" - done."), std::string::npos) << Joined(args);
    EXPECT_FALSE(tavtest::Exists(leftover)) << Joined(args);
    EXPECT_EQ(ReadFile(input), before) << Joined(args);
}

TEST(Usage, BadCommandLinesExitWith2AndAHint)
{
    TempDir dir;
    const std::string in = Scene(dir), out = dir.file("o.tif");
    const std::vector<std::vector<std::string>> cases = {
        {}, {"transmogrify", in, out}, {"kt", in}, {"kt", "-b", "1", in, out}, {"kt", "-sensor", "spot", in, out},
        {"fft", "-b", "0", in, out}, {"fft-inverse", "-ot", "CFloat32", in, out}, {"mnf", in, out},
        {"pca", "-n", "many", "-stats", dir.file("s.sta"), in, out}, {"kt", "-of", "NoSuchFormat", in, out},
        {"kt", in, out, dir.file("third.tif")}, {"kt", "-of"},
        {"dwt", "-quicklook", dir.file("q.jpg"), in, out},
        {"pca", "-stats-only", "-stats", dir.file("s.sta"), "-quicklook", dir.file("q.png"), in},
    };
    for (const auto& args : cases)
        ExpectRefused(dir, args, 2, "Try 'tavtransform", in, out);
}

// Everything the user owns is refused as a target before the plug-in runs (status 2).
TEST(Protection, TargetsTheUserOwnsAreRefusedAndLeftAsTheyWere)
{
    TempDir dir;
    const std::string in = Scene(dir);
    const std::string same = dir.file("./sub/../scene.tif");
    std::filesystem::create_directory(dir.file("sub"));
    tavtest::WriteText(dir.file("result_temp.tif"), "the user's own file");
    std::filesystem::copy_file(in, dir.file("x_temp.tif"));
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    // The device behind /dev/full under a name of our own, so that a broken guard harms only a copy.
    const bool device = mknod(dir.file("full").c_str(), S_IFCHR | 0600, makedev(1, 7)) == 0;
    ASSERT_EQ(std::system(("gdalbuildvrt -q " + Quote(dir.file("v.vrt")) + " " + Quote(in)).c_str()), 0);
    Scene(dir, 1, GDT_CInt16, 9, "complex.tif");
    const std::string o = dir.file("o.tif");
    struct Case { std::vector<std::string> args; std::string message; };
    const Case cases[] = {
        {{"kt", in, in}, "same file as INPUT"},
        {{"fft", in, same}, "same file as INPUT"},
        {{"mnf", "-stats", in, in, o}, "same file as INPUT"},
        {{"pca", "-stats", same, in, o}, "same file as INPUT"},
        {{"pca", "-stats-only", "-stats", in, in}, "same file as INPUT"},
        {{"dwt", in, dir.file("result.tif")}, "result_temp.tif' exists"},
        {{"dwt-inverse", in, dir.file("result.tif")}, "result_temp.tif' exists"},
        {{"dwt", dir.file("x_temp.tif"), dir.file("x.tif")}, "x_temp.tif' exists"},
        {{"kt", dir.file("nowhere.tif"), o}, "nowhere.tif' does not exist"},
        {{"kt", in, device ? dir.file("full") : dir.file("fifo")}, "is not a regular file"},
        {{"fft", in, dir.file("fifo")}, "is not a regular file"},
        {{"mnf", "-stats", dir.file("fifo"), in, o}, "is not a regular file"},
        {{"kt", in, dir.path().string()}, "is not a regular file"},
        {{"kt", in, dir.file("nofolder/o.tif")}, "nofolder' of OUTPUT does not exist"},
        {{"kt", dir.file("v.vrt"), in}, "OUTPUT is the same file as '" + in + "', which INPUT reads"},
        {{"fft", dir.file("complex.tif"), o}, "CInt16, a complex pixel type"},
        {{"fft", "-of", "PNG", in, o}, "PNG cannot hold the Float32 values"},
        {{"kt", "-of", "VRT", in, o}, "option -of: VRT only points at other files"},
        {{"kt", "-of", "MEM", in, o}, "option -of: MEM keeps the raster in memory"},
    };
    for (const Case& c : cases)
        ExpectRefused(dir, c.args, 2, c.message, in, o);
    EXPECT_EQ(ReadFile(dir.file("result_temp.tif")), "the user's own file");
    EXPECT_TRUE(tavtest::Exists(dir.file("x_temp.tif")));
    EXPECT_TRUE(std::filesystem::is_fifo(dir.file("fifo")));
    if (!device)
        GTEST_SKIP() << "no device node can be made here; the fifo stood in for it";
    EXPECT_TRUE(std::filesystem::is_character_file(dir.file("full")));
}

// A run whose reads or writes failed is a failed run, whatever the transform returned.
TEST(HostGuard, FailedReadsEndInStatus1WithTheOutputRemoved)
{
    TempDir dir;
    const std::string in = Scene(dir, 6, GDT_Byte, 120), t = dir.file("t.tif"), wt = dir.file("wt.tif");
    ASSERT_EQ(RunCli(dir, {"dwt", "-q", in, dir.file("w.tif")}).status, 0);
    std::filesystem::copy_file(in, t);
    std::filesystem::resize_file(t, 1000);
    // A fresh copy keeps its directory ahead of the pixels (naming the bands moved it to the end),
    // so that halving the file loses pixels, not the directory.
    GDALDatasetH w = GDALOpen(dir.file("w.tif").c_str(), GA_ReadOnly);
    GDALClose(GDALTranslate(wt.c_str(), w, nullptr, nullptr));
    GDALClose(w);
    std::filesystem::resize_file(wt, std::filesystem::file_size(wt) / 2);
    for (const char* command : {"kt", "fft"})
        ExpectRefused(dir, {command, t, dir.file("o.tif")}, 1, "reading " + t + " failed: ", t, dir.file("o.tif"));
    ExpectRefused(dir, {"dwt-inverse", wt, dir.file("o.tif")}, 1, "TIFFReadEncodedStrip() failed", wt, dir.file("o.tif"));
    // Through a link, the file written is the file removed; the link is the user's and stays.
    std::filesystem::create_symlink(dir.file("real.tif"), dir.file("link.tif"));
    ExpectRefused(dir, {"kt", t, dir.file("link.tif")}, 1, "Removed " + dir.file("real.tif"), t, dir.file("real.tif"));
    EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link.tif")));
    EXPECT_EQ(RunCli(dir, {"kt", "-q", in, dir.file("link.tif")}).status, 0);
    EXPECT_EQ(tavtest::Info(dir.file("real.tif")).bands, 3);
}

TEST(HostGuard, FullFileSystemEndsInStatus1WithGdalsReason)
{
    TempDir dir;
    const std::string in = Scene(dir, 6, GDT_Byte, 260);
    const std::string full = dir.file("full");
    std::filesystem::create_directory(full);
    if (std::system(("mount -t tmpfs -o size=2m tmpfs " + Quote(full) + " 2>/dev/null").c_str()) != 0)
        GTEST_SKIP() << "mounting a tmpfs is not allowed here; a full device is checked in Protection";
    // Unmounted on every way out, so the temporary folder can go.
    const std::shared_ptr<void> unmount(nullptr, [&](void*) { std::system(("umount " + Quote(full)).c_str()); });
    ExpectRefused(dir, {"fft", in, full + "/out.tif"}, 1, "out.tif failed: _tiffWriteProc:No space left on device",
                  in, full + "/out.tif");
    EXPECT_TRUE(std::filesystem::is_empty(full));
}

// INPUT is whatever GDAL opens and option values take any case; progress is GDAL's bar unless -q;
// a failure says the plug-in's message, a plain reading of it and GDAL's reason.
TEST(Run, StatusProgressMessagesAndBands)
{
    TempDir dir;
    const std::string in = Scene(dir), five = Scene(dir, 5, GDT_Byte, 9, "five.tif"), text = dir.file("text.tif");
    tavtest::WriteText(text, "not an image");
    ASSERT_EQ(CPLCopyFile(("/vsizip/" + dir.file("a.zip") + "/in.tif").c_str(), in.c_str()), 0);
    ASSERT_EQ(CPLCopyFile(("/vsigzip/" + dir.file("in.tif.gz")).c_str(), in.c_str()), 0);
    const std::string bar = "Tasseled Cap Transform is running...\n0...10...20...30...40...50...60...70...80...90...100 - done.\n";
    const struct { std::vector<std::string> args; int status; int bands; std::vector<std::string> err; } cases[] = {
        {{"kt", in}, 0, 3, {bar}},
        {{"kt", "-q", "/vsizip/" + dir.file("a.zip") + "/in.tif"}, 0, 3, {}},
        {{"kt", "-q", "/vsigzip/" + dir.file("in.tif.gz")}, 0, 3, {}},
        {{"kt", "-q", "GTIFF_DIR:1:" + in}, 0, 3, {}},
        {{"kt", "-q", "-sensor", "TM", in}, 0, 3, {}},
        {{"kt", "-q", "-sensor", "etm", in}, 0, 6, {}},
        {{"fft-inverse", "-q", "-ot", "float64", in}, 0, 3, {}},
        {{"fft", "-q", in}, 0, 12, {}}, // without -b every band: a real and an imaginary band for each
        {{"kt", "-q", five}, 1, 0, {"ERROR 1: Input file is inconsistent with the sensor type!",
                                   "\n  -sensor tm needs at least 6 bands, mss 4 and etm 6."}},
        {{"kt", "-q", text}, 1, 0, {"ERROR 2: Failed to open the input file!", "\n  GDAL: "}},
    };
    for (auto c : cases) {
        std::filesystem::remove(dir.file("o.tif"));
        c.args.push_back(dir.file("o.tif"));
        const CliResult r = RunCli(dir, c.args);
        EXPECT_EQ(r.status, c.status) << Joined(c.args) << r.err;
        for (const std::string& expected : c.err)
            EXPECT_NE(r.err.find(expected), std::string::npos) << Joined(c.args) << r.err;
        EXPECT_EQ(c.status == 0 && c.err.empty() ? r.err : "", "") << "-q is silent: " << Joined(c.args);
        EXPECT_EQ(c.bands ? tavtest::Info(dir.file("o.tif")).bands : 0, c.bands) << Joined(c.args);
    }
}

// Each format either holds what the command writes, read back by GDAL, or is refused up front.
TEST(Formats, EveryFormatWritesTheRightBandsOrIsRefusedBeforehand)
{
    TempDir dir;
    const std::string in = Scene(dir, 6, GDT_Float32, 16);
    const std::vector<std::pair<std::string, int>> commands = {
        {"kt", 3}, {"fft", 12}, {"fft-inverse", 3}, {"dwt", 6}, {"dwt-inverse", 6}};
    int written = 0;
    for (const std::string format : {"GTiff", "COG", "ENVI", "HFA", "PNG", "JPEG", "VRT", "MEM"})
        for (const auto& [command, bands] : commands) {
            const std::string out = dir.file(command + "." + format);
            const CliResult r = RunCli(dir, {command, "-q", "-of", format, in, out});
            const bool refusable = std::string("PNG JPEG VRT MEM").find(format) != std::string::npos;
            if (r.status == 0 && format != "VRT" && format != "MEM") {
                EXPECT_EQ(tavtest::Info(out).bands, bands) << command << " " << format;
                written += refusable;
            } else {
                EXPECT_EQ(r.status, 2) << command << " " << format << "\n" << r.err;
                EXPECT_TRUE(refusable) << command << " " << format;
                EXPECT_NE(r.err.find("option -of: "), std::string::npos) << r.err;
                EXPECT_FALSE(tavtest::Exists(out)) << command << " " << format;
            }
        }
    EXPECT_EQ(written, 0) << "PNG and JPEG cannot hold Float32 values";
}

TEST(Help, EveryCommandHasHelpAndPcaSaysWhichBandsItUses)
{
    TempDir dir;
    for (const char* cmd : {"kt", "fft", "fft-inverse", "dwt", "dwt-inverse", "mnf", "mnf-inverse", "pca", "pca-inverse"}) {
        const CliResult r = RunCli(dir, {cmd, "--help"});
        EXPECT_EQ(r.status, 0) << cmd;
        EXPECT_NE(r.out.find(std::string("Usage: tavtransform ") + cmd), std::string::npos) << cmd;
    }
    EXPECT_NE(RunCli(dir, {"pca", "-h"}).out.find("use bands 1..N"), std::string::npos);
    EXPECT_NE(RunCli(dir, {"fft-inverse", "-h"}).out.find("Only Float32 yields the values"), std::string::npos);
    EXPECT_EQ(RunCli(dir, {"--version"}).status, 0);
}

// Ctrl-C, SIGTERM and SIGHUP reach Terminate through the CLI's signal thread; the status is 128 +
// the signal, the partial outputs are gone and the statistics file and OUTPUT the user had are back.
TEST(Interrupt, SignalsDuringARunExit128PlusTheSignalAndGiveTheUsersFilesBack)
{
    TempDir dir;
    const std::string in = dir.file("big.tif"), out = dir.file("o.tif"), stats = dir.file("s.sta");
    GDALAllRegister();
    char** opts = CSLSetNameValue(nullptr, "SPARSE_OK", "TRUE");
    GDALClose(GetGDALDriverManager()->GetDriverByName("GTiff")->Create(in.c_str(), 8000, 8000, 6, GDT_Byte, opts));
    CSLDestroy(opts);
    const struct { int sig; std::string args; } cases[] = {
        {SIGINT, "kt"}, {SIGTERM, "pca -stats " + Quote(stats)}, {SIGHUP, "mnf -stats " + Quote(stats)},
        {SIGINT, "pca -stats-only -stats " + Quote(stats)}};
    for (const auto& [sig, args] : cases) {
        tavtest::WriteText(stats, "the user's statistics");
        tavtest::WriteText(out, "the user's result");
        const bool statsOnly = args.find("-stats-only") != std::string::npos;
        // The shell says its process number and becomes the command line, its stderr into the pipe.
        std::FILE* pipe = popen(("echo $$; exec " + Quote(TAV_BIN_DIR "/tavtransform") + " " + args + " " + Quote(in) +
                                 (statsOnly ? "" : " " + Quote(out)) + " 2>&1").c_str(), "r");
        ASSERT_TRUE(pipe);
        int pid = 0;
        ASSERT_EQ(std::fscanf(pipe, "%d\n", &pid), 1);
        // Wait until the bar has moved, so the signal lands mid-run.
        std::string seen;
        for (int c; seen.find("0.") == std::string::npos && (c = std::fgetc(pipe)) != EOF;)
            seen += static_cast<char>(c);
        kill(pid, sig);
        for (int c; (c = std::fgetc(pipe)) != EOF;)
            seen += static_cast<char>(c);
        const int status = pclose(pipe);
        ASSERT_TRUE(WIFEXITED(status)) << seen;
        EXPECT_EQ(WEXITSTATUS(status), 128 + sig) << args << seen;
        EXPECT_EQ(ReadFile(out), "the user's result") << args;
        EXPECT_EQ(ReadFile(stats), "the user's statistics") << args;
        EXPECT_EQ(seen.find("100 - done"), std::string::npos) << "stopped before the end";
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 3) << args << ": nothing left";
    }
}

TEST(Module, ExportsGetAlgoObjAlone)
{
    TempDir dir;
    ASSERT_EQ(std::system(("nm -D --defined-only " TAV_BIN_DIR "/../lib/libTavTransformFunc.so | awk '{print $NF}' > " +
                           Quote(dir.file("nm.txt"))).c_str()), 0);
    EXPECT_EQ(ReadFile(dir.file("nm.txt")), "GetAlgoObj\n");
}

// The run's record as sorted "KEY=value" lines.
std::vector<std::string> Domain(const std::string& path)
{
    std::unique_ptr<GDALDataset> ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER));
    char** items = ds->GetMetadata("TAVTRANSFORM");
    std::vector<std::string> lines(items, items + CSLCount(items));
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Unnamed bands get a name saying what they hold, and the run is recorded; ENVI's own "Band N"
// counts as unnamed; PNG and COG keep neither and the run still succeeds.
TEST(Outputs, RunsNameTheirBandsAndRecordTheCommand)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), f = dir.file("f.tif"), d = dir.file("d.tif");
    tavtest::WriteRaster(in, tavtest::Shape(8, 6, 3, GDT_Byte), [](int b, int x, int y) { return b * 40 + x * y; });
    const std::vector<std::string> dwt = {"Wavelet quadrants (band 1)", "Wavelet quadrants (band 2)", "Wavelet quadrants (band 3)"};
    const std::vector<std::string> restored = {"Band 1 restored", "Band 2 restored", "Band 3 restored"};
    const struct { std::string args, source, output; std::vector<std::string> names; std::string options; } cases[] = {
        {"fft -b 3 -b 1", in, f, {"Real (band 3)", "Imaginary (band 3)", "Real (band 1)", "Imaginary (band 1)"},
         "-b 3 -b 1 -of GTiff"},
        {"fft-inverse", f, dir.file("fi.tif"), {restored[0], restored[1]}, "-ot Float32 -of GTiff"},
        {"dwt", in, d, dwt, "-of GTiff"},
        {"dwt-inverse", d, dir.file("di.tif"), restored, "-of GTiff"},
        {"dwt -of ENVI", in, dir.file("d.envi"), dwt, "-of ENVI"},
        {"fft-inverse -ot Byte -of PNG", f, dir.file("fi.png"), {"", ""}, ""},
        {"dwt -of COG", in, dir.file("d.cog"), {"", "", ""}, ""}, // changing it afterwards would undo its layout
    };
    for (const auto& c : cases) {
        ASSERT_EQ(Cli(c.args + " -q " + c.source + " " + c.output), 0) << c.args;
        EXPECT_EQ(tavtest::Info(c.output).descriptions, c.names) << c.args;
        const std::vector<std::string> record = {"COMMAND=" + c.args.substr(0, c.args.find(' ')), "INPUT=" + c.source,
                                                 "OPTIONS=" + c.options, "VERSION=tavtransform " TAV_VERSION};
        EXPECT_EQ(Domain(c.output), c.options.empty() ? std::vector<std::string>() : record) << c.args;
    }
    stForwardPCAInfo r;
    std::tie(r.strStatFile, r.strFormat, r.nComponents, r.bCovariance) = std::make_tuple("s.sta", "HFA", 2, false);
    Request pca;
    std::tie(pca.command, pca.record) = std::make_tuple("pca", r);
    EXPECT_EQ(BandName(pca, 2), "PC 2");
    EXPECT_EQ(RunMetadata(pca)[1].second, "-stats s.sta -ot Float32 -n 2 -corr -no-center -nomask -of HFA");
    EXPECT_EQ(RunMetadata(pca)[3], std::make_pair(std::string("STATISTICS"), std::string("s.sta")));
}

// The mask options are recorded as they would be typed again, read from the record the plug-in
// ran: what differs from the default masks, and -nomask for an unmasked run of a command that masks.
TEST(Outputs, RunRecordsTheMaskOptions)
{
    stForwardPCAInfo p;
    std::tie(p.strStatFile, p.strFormat, p.bSubtractMean) = std::make_tuple("s.sta", "GTiff", true);
    stInversePCAInfo i;
    std::tie(i.strStatFile, i.strFormat, i.nOutDataType) = std::make_tuple("s.sta", "GTiff", 1);
    stTransInfo t;
    std::tie(t.nTransType, t.nSensorType, t.strFormat) = std::make_tuple(4, 2, "GTiff");
    stTasseledCapInfo set;
    std::tie(set.trans, set.strSensor) = std::make_tuple(t, "oli");
    stTasseledCapInfo setOff = set;
    setOff.mask.bUseMasks = false;
    const double nan = std::nan("");
    const struct {
        std::string command;
        boost::any record;
        std::string options;
    } cases[] = {
        {"pca", stMaskedForwardPCAInfo{p, {{0}, true, -9999}, 0, 0}, "-stats s.sta -ot Float32 -srcnodata 0 -dstnodata -9999 -of GTiff"},
        {"pca", stMaskedForwardPCAInfo{p, {{}, true, nan}, 0, 0}, "-stats s.sta -ot Float32 -of GTiff"},
        {"pca-inverse", stMaskedInversePCAInfo{i, {{1.5, -2, 1e-300}, true, 0.1}},
         "-stats s.sta -ot UInt16 -srcnodata \"1.5 -2 1e-300\" -dstnodata 0.1 -of GTiff"},
        {"pca-inverse", i, "-stats s.sta -ot UInt16 -nomask -of GTiff"},
        {"kt", stMaskedTransInfo{t, {{nan}, true, nan}, {}}, "-sensor etm -srcnodata nan -of GTiff"},
        {"kt", t, "-sensor etm -nomask -of GTiff"},
        {"kt", set, "-sensor oli -of GTiff"},
        {"kt", setOff, "-sensor oli -nomask -of GTiff"},
        {"dwt", t, "-nomask -of GTiff"},
        {"dwt-inverse", t, "-of GTiff"}, // takes no mask options, records none
    };
    for (const auto& c : cases) {
        Request req;
        std::tie(req.command, req.record) = std::make_tuple(c.command, c.record);
        EXPECT_EQ(RunMetadata(req)[1], std::make_pair(std::string("OPTIONS"), c.options)) << c.options;
    }
    // And through a run: the typed options come back.
    TempDir dir;
    const auto sc = tavtest::MakeMaskScene(dir.file("in.tif"), tavtest::Fill::NoDataValue);
    ASSERT_EQ(Cli("pca -q -stats " + dir.file("s.sta") + " -ot Int16 -srcnodata \"0 0 0 0 0 0\" -dstnodata -5 " + sc.path +
                  " " + dir.file("pc.tif")), 0);
    const auto lines = Domain(dir.file("pc.tif"));
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "OPTIONS=-stats " + dir.file("s.sta") + " -ot Int16 -n 6 -srcnodata \"0 0 0 0 0 0\" -dstnodata -5 -of GTiff"),
              lines.end()) << ::testing::PrintToString(lines);
}

// Formats written by copy keep the run's no-data value: declared, and held at the fill. A format
// that compresses with loss changes some of those pixels, and the run says so, naming the value.
TEST(Outputs, CopiedFormatsKeepTheNoDataValue)
{
    TempDir dir;
    const auto sc = tavtest::MakeMaskScene(dir.file("in.tif"), tavtest::Fill::NoDataValue);
    const double nan = std::nan("");
    const struct {
        std::vector<std::string> args;
        std::string output;
        double value;
        std::string warning; // empty: none, and every fill pixel holds the value
    } cases[] = {
        {{"kt", "-of", "COG"}, "kt.tif", nan, ""},
        {{"pca", "-stats", dir.file("s.sta"), "-ot", "Int16", "-dstnodata", "-5", "-of", "COG"}, "pc.tif", -5, ""},
        {{"pca", "-stats", dir.file("b.sta"), "-ot", "Byte", "-n", "3", "-of", "PNG"}, "pc.png", 0, ""},
        {{"pca", "-stats", dir.file("j.sta"), "-ot", "Byte", "-n", "3", "-of", "JPEG"}, "pc.jpg", 0,
         "Warning: JPEG compresses with loss: in " + dir.file("pc.jpg") + ", "},
        {{"pca", "-stats", dir.file("c.sta"), "-ot", "Byte", "-n", "3", "-of", "COG", "-co", "COMPRESS=JPEG"}, "pc_jpeg.tif", 0,
         "Warning: COG compresses with loss: in " + dir.file("pc_jpeg.tif") + ", "},
    };
    // Without its side file a JPEG has nowhere to keep the value at all.
    {
        const std::string out = dir.file("nopam.jpg");
        ::setenv("GDAL_PAM_ENABLED", "NO", 1);
        const CliResult r = RunCli(dir, {"pca", "-stats", dir.file("n.sta"), "-ot", "Byte", "-n", "3", "-of", "JPEG", sc.path, out});
        ::unsetenv("GDAL_PAM_ENABLED");
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.err.find("Warning: JPEG does not keep the no-data value 0: in " + out), std::string::npos) << r.err;
    }
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {sc.path, dir.file(c.output)});
        const CliResult r = RunCli(dir, args);
        ASSERT_EQ(r.status, 0) << c.output << ": " << r.err;
        const auto info = tavtest::Info(dir.file(c.output));
        for (int b = 1; b <= info.bands; ++b) {
            const auto [declared, value] = info.noData[b - 1];
            EXPECT_TRUE(declared && (std::isnan(c.value) ? std::isnan(value) : value == c.value)) << c.output << " " << b;
            const auto band = tavtest::ReadBand(dir.file(c.output), b);
            long long off = 0;
            for (int y = 0; y < sc.height; ++y)
                for (int x = 0; x < sc.width; ++x) {
                    const double v = band[static_cast<size_t>(y) * sc.width + x];
                    off += !sc.Valid(x, y) && !(std::isnan(c.value) ? std::isnan(v) : v == c.value);
                }
            EXPECT_TRUE(off == 0 || !c.warning.empty()) << c.output << " band " << b << ": " << off;
        }
        const bool warned = r.err.find("Warning") != std::string::npos;
        EXPECT_EQ(warned, !c.warning.empty()) << r.err;
        EXPECT_TRUE(c.warning.empty() || (r.err.find(c.warning) != std::string::npos &&
                                          r.err.find("no longer hold the no-data value 0") != std::string::npos))
            << r.err;
    }
}

// 2-98 % stretch by nearest rank, from its definition.
std::vector<double> ReferenceStretch(const std::vector<double>& v)
{
    std::vector<double> s = v, out;
    std::sort(s.begin(), s.end());
    const double lo = s[size_t(0.02 * (s.size() - 1))], hi = s[size_t(0.98 * (s.size() - 1))];
    for (double x : v)
        out.push_back(std::round(255.0 * std::clamp((x - lo) / (hi - lo), 0.0, 1.0)));
    return out;
}

// Long side at most 1024 with the aspect kept; three bands or more give RGB, a spectrum pair grey;
// grey from a ramp, and the log magnitude of a real/imaginary pair, against the stretch's definition.
TEST(Quicklook, SizeBandsAndPixelsFollowTheRaster)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), png = dir.file("q.png");
    const int cases[][7] = {{2050, 300, 1, 0, 1024, 150, 1}, {300, 2050, 4, 0, 150, 1024, 3},
                            {9, 7, 2, 0, 9, 7, 1},           {9, 7, 2, 1, 9, 7, 1}};
    for (const auto& c : cases) {
        tavtest::WriteRaster(in, tavtest::Shape(c[0], c[1], c[2], GDT_Byte), [](int b, int x, int y) { return (b + x + y) % 200; });
        ASSERT_EQ(WriteQuicklook(in, png, c[3]), "");
        const auto q = tavtest::Info(png);
        EXPECT_EQ(std::vector<int>({q.width, q.height, q.bands, q.type}), std::vector<int>({c[4], c[5], c[6], 1}));
    }
    const tavtest::PixelFn ramp = [](int, int x, int y) { return float(std::pow(x + 10.0 * y, 1.5)); };
    const tavtest::PixelFn pair = [](int b, int x, int y) { return b == 0 ? x - 3.0 : y * y - 2.0; };
    for (bool spectrum : {false, true}) {
        tavtest::WriteRaster(in, tavtest::Shape(10, 7, 2, GDT_Float32), spectrum ? pair : ramp);
        std::vector<double> values;
        for (int y = 0; y < 7; ++y)
            for (int x = 0; x < 10; ++x)
                values.push_back(spectrum ? std::log(1.0 + std::hypot(pair(0, x, y), pair(1, x, y))) : ramp(0, x, y));
        ASSERT_EQ(WriteQuicklook(in, png, spectrum), "");
        EXPECT_EQ(tavtest::ReadBand(png, 1), ReferenceStretch(values)) << spectrum;
    }
}

} // namespace

// ---- masks: -srcnodata, -dstnodata, -nomask ----

namespace {

// Band k of two rasters agree at every valid pixel, and the masked one holds `fill` at the others.
void ExpectMaskedBand(const tavtest::MaskScene& sc, const std::string& plain, const std::string& masked, int k,
                      double fill)
{
    const auto a = tavtest::ReadBand(plain, k), b = tavtest::ReadBand(masked, k);
    long long wrong = 0;
    for (size_t i = 0; i < sc.valid.size(); ++i)
        wrong += sc.valid[i] ? a[i] != b[i] : std::isnan(fill) ? !std::isnan(b[i]) : b[i] != fill;
    EXPECT_EQ(wrong, 0) << masked << " band " << k;
}

} // namespace

TEST(Masks, KtLeavesOutTheFillAsToldAndNomaskIsTheUnmaskedRun)
{
    TempDir dir;
    using tavtest::Fill;
    const auto declared = tavtest::MakeMaskScene(dir.file("nd.tif"), Fill::NoDataValue);
    const auto given = tavtest::MakeMaskScene(dir.file("given.tif"), Fill::SrcNoDataPerBand);
    const std::string out = dir.file("o.tif");
    ASSERT_EQ(RunCli(dir, {"kt", "-q", "-nomask", declared.path, dir.file("plain.tif")}).status, 0);
    ASSERT_EQ(RunCli(dir, {"kt", "-q", declared.path, out}).status, 0);
    ExpectMaskedBand(declared, dir.file("plain.tif"), out, 2, std::nan(""));
    ASSERT_EQ(RunCli(dir, {"kt", "-q", "-dstnodata", "-9999", declared.path, dir.file("d.tif")}).status, 0);
    ExpectMaskedBand(declared, dir.file("plain.tif"), dir.file("d.tif"), 3, -9999);
    EXPECT_EQ(tavtest::Info(dir.file("d.tif")).noData[0], std::make_pair(true, -9999.0));
    // Unmarked fill, named band by band.
    ASSERT_EQ(RunCli(dir, {"kt", "-q", "-nomask", given.path, dir.file("gplain.tif")}).status, 0);
    ASSERT_EQ(RunCli(dir, {"kt", "-q", "-srcnodata", "1000 1011 1022 1033 1044 1055", given.path, dir.file("g.tif")})
                  .status,
              0);
    ExpectMaskedBand(given, dir.file("gplain.tif"), dir.file("g.tif"), 1, std::nan(""));
    // -nomask is the seed's run: the no-data value of the input carried, nothing written over.
    EXPECT_EQ(tavtest::Info(dir.file("plain.tif")).noData[0], std::make_pair(true, 0.0));
}

TEST(Masks, BadMaskOptionsAreUsageErrors)
{
    TempDir dir;
    const std::string in = Scene(dir);
    const struct { std::vector<std::string> args; std::string message; } cases[] = {
        {{"kt", "-srcnodata", "1 2", in, dir.file("o.tif")}, "one value or one per band"},
        {{"kt", "-srcnodata", "x", in, dir.file("o.tif")}, "option -srcnodata takes numbers"},
        {{"kt", "-dstnodata", "low", in, dir.file("o.tif")}, "option -dstnodata takes a number"},
        {{"kt", "-nomask", "-dstnodata", "0", in, dir.file("o.tif")}, "does not go with"},
        {{"dwt-inverse", "-nomask", in, dir.file("o.tif")}, "not an option of 'dwt-inverse'"},
        {{"fft-inverse", "-srcnodata", "0", in, dir.file("o.tif")}, "not an option of 'fft-inverse'"},
        {{"fft", "-dstnodata", "0", in, dir.file("o.tif")}, "-dstnodata does not apply to fft: its output has no no-data"},
        {{"dwt", "-dstnodata", "0", in, dir.file("o.tif")}, "-dstnodata does not apply to dwt"},
        {{"pca", "-stats", dir.file("s.sta"), "-ot", "Byte", "-dstnodata", "300", in, dir.file("o.tif")},
         "does not fit the output type Byte"},
    };
    for (const auto& c : cases)
        ExpectRefused(dir, c.args, 2, c.message, in, dir.file("o.tif"));
}

// fft and dwt fill and warn band by band, declare no no-data; -nomask warns of nothing.
TEST(Masks, FftAndDwtSayWhatTheyFilledAndNomaskFillsNothing)
{
    TempDir dir;
    const auto sc = tavtest::MakeMaskScene(dir.file("nd.tif"), tavtest::Fill::NoDataValue, 37, 29, 2);
    const std::string line = ": " + std::to_string(sc.width * sc.height - sc.ValidCount()) +
                             " of 1,073 pixels were masked and filled with the mean of the others, ";
    for (const std::string command : {"fft", "dwt"}) {
        const CliResult masked = RunCli(dir, {command, "-q", sc.path, dir.file(command + ".tif")});
        ASSERT_EQ(masked.status, 0) << masked.err;
        EXPECT_NE(masked.err.find("Warning: band 1" + line), std::string::npos) << masked.err;
        EXPECT_NE(masked.err.find("Warning: band 2" + line), std::string::npos) << masked.err;
        EXPECT_FALSE(tavtest::Info(dir.file(command + ".tif")).noData[0].first);
        const CliResult all = RunCli(dir, {command, "-q", "-nomask", sc.path, dir.file(command + "-all.tif")});
        ASSERT_EQ(all.status, 0) << all.err;
        EXPECT_EQ(all.err.find("Warning"), std::string::npos) << all.err;
    }
}

TEST(Masks, PcaSaysHowManyPixelsItsStatisticsSawAndNomaskSeesThemAll)
{
    TempDir dir;
    const auto sc = tavtest::MakeMaskScene(dir.file("nd.tif"), tavtest::Fill::NoDataValue);
    ASSERT_EQ(sc.width * sc.height, 1073);
    const std::string total = "1,073"; // grouped as English writes it
    const CliResult masked = RunCli(dir, {"pca", "-q", "-stats", dir.file("m.sta"), "-stats-only", sc.path});
    ASSERT_EQ(masked.status, 0) << masked.err;
    EXPECT_NE(masked.out.find("statistics over " + std::to_string(sc.ValidCount()) + " of " + total + " pixels"),
              std::string::npos)
        << masked.out;
    const CliResult all = RunCli(dir, {"pca", "-q", "-nomask", "-stats", dir.file("a.sta"), "-stats-only", sc.path});
    ASSERT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(all.out.find("statistics over"), std::string::npos) << all.out;
    ASSERT_EQ(RunCli(dir, {"pca", "-q", "-stats", dir.file("r.sta"), sc.path, dir.file("pc.tif")}).status, 0);
    const auto info = tavtest::Info(dir.file("pc.tif"));
    EXPECT_TRUE(info.noData[0].first && std::isnan(info.noData[0].second));
    // Centred Int16 components back to the bands (the inverse always adds the means): the fill comes back as -dstnodata, the scene as the input.
    ASSERT_EQ(RunCli(dir, {"pca", "-q", "-center", "-ot", "Int16", "-stats", dir.file("i.sta"), sc.path, dir.file("pci.tif")})
                  .status,
              0);
    ASSERT_EQ(RunCli(dir, {"pca-inverse", "-q", "-dstnodata", "-1", "-stats", dir.file("i.sta"), dir.file("pci.tif"),
                           dir.file("back.tif")})
                  .status,
              0);
    const auto back = tavtest::ReadBand(dir.file("back.tif"), 2);
    long long wrong = 0;
    for (int y = 0; y < sc.height; ++y)
        for (int x = 0; x < sc.width; ++x) {
            const double got = back[static_cast<size_t>(y) * sc.width + x];
            // Six components truncated to whole numbers: at most sqrt(6) off after the rotation back.
            wrong += sc.Valid(x, y) ? std::abs(got - sc.Value(1, x, y)) > 2.45 : got != -1;
        }
    EXPECT_EQ(wrong, 0);
}

TEST(Masks, MnfSaysHowManyPixelsItsStatisticsSawAndItsInverseWritesTheAskedValue)
{
    TempDir dir;
    const auto sc = tavtest::MakeMaskScene(dir.file("nd.tif"), tavtest::Fill::NoDataValue);
    const std::string st = dir.file("m.sta"), line = "statistics over " + std::to_string(sc.ValidCount()) + " of 1,073 pixels";
    const CliResult masked = RunCli(dir, {"mnf", "-stats", st, sc.path, dir.file("c.tif")});
    ASSERT_EQ(masked.status, 0) << masked.err;
    EXPECT_NE(masked.out.find(line), std::string::npos) << masked.out;
    const auto info = tavtest::Info(dir.file("c.tif"));
    EXPECT_TRUE(info.noData[0].first && std::isnan(info.noData[0].second));
    const CliResult all = RunCli(dir, {"mnf", "-nomask", "-stats", dir.file("a.sta"), sc.path, dir.file("a.tif")});
    ASSERT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(all.out.find("statistics over"), std::string::npos) << all.out;
    EXPECT_EQ(tavtest::Info(dir.file("a.tif")).noData[0].first, false);
    // UInt16 bands back from the components: 7 at the fill, the scene (truncated, within 1) elsewhere.
    ASSERT_EQ(RunCli(dir, {"mnf-inverse", "-q", "-dstnodata", "7", "-stats", st, dir.file("c.tif"), dir.file("b.tif")})
                  .status,
              0);
    EXPECT_EQ(tavtest::Info(dir.file("b.tif")).noData[0], std::make_pair(true, 7.0));
    const auto back = tavtest::ReadBand(dir.file("b.tif"), 3);
    long long wrong = 0;
    for (int y = 0; y < sc.height; ++y)
        for (int x = 0; x < sc.width; ++x) {
            const double got = back[static_cast<size_t>(y) * sc.width + x];
            wrong += sc.Valid(x, y) ? std::abs(got - sc.Value(2, x, y)) > 1 : got != 7;
        }
    EXPECT_EQ(wrong, 0);
    // A value the inverse's type (the statistics file's UInt16) cannot hold, and a band count that
    // is not the input's.
    ExpectRefused(dir, {"mnf-inverse", "-dstnodata", "-1", "-stats", st, dir.file("c.tif"), dir.file("o.tif")}, 2,
                  "does not fit the output type UInt16", dir.file("c.tif"), dir.file("o.tif"));
    ExpectRefused(dir, {"mnf", "-srcnodata", "1 2", "-stats", dir.file("o.sta"), sc.path, dir.file("o.tif")}, 2,
                  "one value or one per band", sc.path, dir.file("o.tif"));
}
