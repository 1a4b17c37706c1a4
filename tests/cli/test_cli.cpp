#include "TestSupport.h"

#include <cpl_vsi.h>

#include <gdal_utils.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

extern char** environ;

using tavtest::TempDir;

namespace {

struct CliResult {
    int status = -1;
    std::string out, err;
};

std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string Quote(const std::string& s)
{
    std::string q(1, '\'');
    q.append(s).push_back('\'');
    return q;
}

CliResult RunCli(const TempDir& dir, const std::vector<std::string>& args)
{
    std::string cmd = Quote(std::string(TAV_BIN_DIR) + "/tavtransform");
    for (const auto& a : args)
        cmd.append(" ").append(Quote(a));
    cmd.append(" > ").append(Quote(dir.file("stdout.txt")));
    cmd.append(" 2> ").append(Quote(dir.file("stderr.txt"))).append(" < /dev/null");
    const int raw = std::system(cmd.c_str());
    CliResult r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = Slurp(dir.file("stdout.txt"));
    r.err = Slurp(dir.file("stderr.txt"));
    return r;
}

std::string Scene(const TempDir& dir, int bands = 6, GDALDataType type = GDT_Byte, int side = 9,
                  const std::string& name = "scene.tif")
{
    const std::string path = dir.file(name);
    tavtest::WriteRaster(path, tavtest::Shape(side, side - 2, bands, type),
                         [](int b, int x, int y) { return b * 30 + x + y; });
    return path;
}
std::string SixBandScene(const TempDir& dir, int bands = 6) { return Scene(dir, bands); }

size_t Checksum(const std::string& path) { return std::hash<std::string>{}(Slurp(path)); }

// A refused or failed run: its status and message, no output left, the input unchanged.
void ExpectRefused(const TempDir& dir, const std::vector<std::string>& args, int status, const std::string& message,
                   const std::string& input, const std::string& leftover)
{
    const size_t before = Checksum(input);
    const CliResult r = RunCli(dir, args);
    std::string joined;
    for (const auto& a : args)
        joined += a + " ";
    EXPECT_EQ(r.status, status) << joined << "\n" << r.err;
    EXPECT_NE(r.err.find(message), std::string::npos) << joined << "\n" << r.err;
    EXPECT_EQ(r.err.find(" - done."), std::string::npos) << joined;
    EXPECT_FALSE(leftover.empty() ? false : tavtest::Exists(leftover)) << joined;
    EXPECT_EQ(Checksum(input), before) << joined;
}

TEST(Usage, BadCommandLinesExitWith2AndAHint)
{
    TempDir dir;
    const std::string in = SixBandScene(dir);
    const std::string out = dir.file("o.tif");
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"transmogrify", in, out},
        {"kt", in},
        {"kt", "-b", "1", in, out},
        {"kt", "-sensor", "spot", in, out},
        {"fft", "-b", "0", in, out},
        {"fft-inverse", "-ot", "CFloat32", in, out},
        {"mnf", in, out},
        {"pca", "-n", "many", "-stats", dir.file("s.sta"), in, out},
        {"kt", "-of", "NoSuchFormat", in, out},
        {"kt", in, out, dir.file("third.tif")},
        {"kt", "-of"},
    };
    for (const auto& args : cases) {
        const CliResult r = RunCli(dir, args);
        std::string joined;
        for (const auto& a : args)
            joined += a + " ";
        EXPECT_EQ(r.status, 2) << joined;
        EXPECT_NE(r.err.find("Try 'tavtransform"), std::string::npos) << joined << "\n" << r.err;
        EXPECT_FALSE(tavtest::Exists(out)) << joined;
    }
}

// Everything the user owns is refused as a target before the plug-in runs (status 2).
TEST(Protection, TargetsTheUserOwnsAreRefusedAndLeftAsTheyWere)
{
    TempDir dir;
    const std::string in = SixBandScene(dir);
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
        {{"kt", dir.file("v.vrt"), in}, "which INPUT reads"},
        {{"fft", dir.file("v.vrt"), in}, "which INPUT reads"},
        {{"dwt", dir.file("v.vrt"), in}, "which INPUT reads"},
        {{"fft", dir.file("complex.tif"), o}, "CInt16, a complex pixel type"},
        {{"fft", "-of", "PNG", in, o}, "PNG cannot hold 12 band(s) of Float32"},
        {{"kt", "-of", "VRT", in, o}, "option -of: VRT only points at other files"},
        {{"kt", "-of", "MEM", in, o}, "option -of: MEM keeps the raster in memory"},
    };
    for (const Case& c : cases)
        ExpectRefused(dir, c.args, 2, c.message, in, o);
    EXPECT_EQ(Slurp(dir.file("result_temp.tif")), "the user's own file");
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
    const std::string in = Scene(dir, 6, GDT_Byte, 120);
    ASSERT_EQ(RunCli(dir, {"dwt", "-q", in, dir.file("w.tif")}).status, 0);
    std::filesystem::copy_file(in, dir.file("t.tif"));
    std::filesystem::resize_file(dir.file("t.tif"), 1000);
    // A fresh copy keeps its directory ahead of the pixels (naming the bands moved it to the end),
    // so that halving the file loses pixels, not the directory.
    GDALDatasetH w = GDALOpen(dir.file("w.tif").c_str(), GA_ReadOnly);
    GDALClose(GDALTranslate(dir.file("wt.tif").c_str(), w, nullptr, nullptr));
    GDALClose(w);
    std::filesystem::resize_file(dir.file("wt.tif"), std::filesystem::file_size(dir.file("wt.tif")) / 2);
    ExpectRefused(dir, {"kt", dir.file("t.tif"), dir.file("o.tif")}, 1, "reading " + dir.file("t.tif") + " failed: ",
                  dir.file("t.tif"), dir.file("o.tif"));
    ExpectRefused(dir, {"fft", dir.file("t.tif"), dir.file("o.tif")}, 1, "reading " + dir.file("t.tif") + " failed: ",
                  dir.file("t.tif"), dir.file("o.tif"));
    ExpectRefused(dir, {"dwt-inverse", dir.file("wt.tif"), dir.file("o.tif")}, 1, "TIFFReadEncodedStrip() failed",
                  dir.file("wt.tif"), dir.file("o.tif"));
    // Through a link, the file written is the file removed; the link is the user's and stays.
    std::filesystem::create_symlink(dir.file("real.tif"), dir.file("link.tif"));
    ExpectRefused(dir, {"kt", dir.file("t.tif"), dir.file("link.tif")}, 1, "Removed " + dir.file("real.tif"),
                  dir.file("t.tif"), dir.file("real.tif"));
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

// INPUT is whatever GDAL opens; option values take any case.
TEST(Run, GdalNamesAndAnyCaseAreAccepted)
{
    TempDir dir;
    const std::string in = SixBandScene(dir);
    ASSERT_EQ(CPLCopyFile(("/vsizip/" + dir.file("a.zip") + "/in.tif").c_str(), in.c_str()), 0);
    ASSERT_EQ(CPLCopyFile(("/vsigzip/" + dir.file("in.tif.gz")).c_str(), in.c_str()), 0);
    const std::vector<std::vector<std::string>> cases = {
        {"kt", "/vsizip/" + dir.file("a.zip") + "/in.tif", dir.file("o.tif")},
        {"kt", "/vsigzip/" + dir.file("in.tif.gz"), dir.file("o.tif")},
        {"kt", "GTIFF_DIR:1:" + in, dir.file("o.tif")},
        {"kt", "-sensor", "TM", in, dir.file("o.tif")},
        {"fft-inverse", "-ot", "float64", in, dir.file("o.tif")},
    };
    for (const auto& args : cases) {
        std::filesystem::remove(dir.file("o.tif"));
        const CliResult r = RunCli(dir, args);
        EXPECT_EQ(r.status, 0) << args[1] << r.err;
        EXPECT_EQ(tavtest::Info(dir.file("o.tif")).bands, 3) << args[1];
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
    for (const char* format : {"GTiff", "COG", "ENVI", "HFA", "PNG", "JPEG", "VRT", "MEM"})
        for (const auto& [command, bands] : commands) {
            const std::string out = dir.file(command + "." + format);
            const CliResult r = RunCli(dir, {command, "-q", "-of", format, in, out});
            const bool refusable = std::string("PNG JPEG VRT MEM").find(format) != std::string::npos;
            if (r.status == 0 && std::string(format) != "VRT" && std::string(format) != "MEM") {
                EXPECT_EQ(tavtest::Info(out).bands, bands) << command << " " << format;
                written += refusable;
            } else {
                EXPECT_EQ(r.status, 2) << command << " " << format << "\n" << r.err;
                EXPECT_TRUE(refusable) << command << " " << format;
                EXPECT_NE(r.err.find("option -of: "), std::string::npos) << r.err;
                EXPECT_FALSE(tavtest::Exists(out)) << command << " " << format;
            }
        }
    EXPECT_EQ(written, 4) << "kt and fft-inverse (3 bands) fit PNG and JPEG";
    const CliResult png = RunCli(dir, {"kt", "-q", "-of", "PNG", in, dir.file("w.png")});
    EXPECT_NE(png.err.find("Warning: PNG driver doesn't support data type Float32"), std::string::npos) << png.err;
}

TEST(Run, SuccessShowsGdalStyleProgressAndQuietSilencesIt)
{
    TempDir dir;
    const std::string in = SixBandScene(dir);
    CliResult r = RunCli(dir, {"kt", in, dir.file("o.tif")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("Tasseled Cap Transform is running...\n"
                         "0...10...20...30...40...50...60...70...80...90...100 - done.\n"),
              std::string::npos)
        << r.err;
    r = RunCli(dir, {"kt", "-q", "-sensor", "etm", in, dir.file("q.tif")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(tavtest::Info(dir.file("q.tif")).bands, 6);
    // Without -b the Fourier run takes every band: a real and an imaginary band for each.
    EXPECT_EQ(RunCli(dir, {"fft", "-q", in, dir.file("f.tif")}).status, 0);
    EXPECT_EQ(tavtest::Info(dir.file("f.tif")).bands, 12);
}

TEST(Run, FailedRunExitsWith1AndThePluginsMessage)
{
    TempDir dir;
    const std::string in = SixBandScene(dir, 5);
    const CliResult r = RunCli(dir, {"kt", "-q", in, dir.file("o.tif")});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("ERROR 1: Input file is inconsistent with the sensor type!"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\n  -sensor tm needs at least 6 bands, mss 4 and etm 6."), std::string::npos) << r.err;
    tavtest::WriteText(dir.file("text.tif"), "not an image");
    const CliResult bad = RunCli(dir, {"kt", "-q", dir.file("text.tif"), dir.file("o.tif")});
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("ERROR 2: Failed to open the input file!"), std::string::npos) << bad.err;
    EXPECT_NE(bad.err.find("  GDAL: "), std::string::npos) << "GDAL's own reason as a detail line";
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

// Ctrl-C, SIGTERM and SIGHUP reach Terminate through the CLI's signal thread; the plug-in
// removes the output and the status is 128 + the signal.
TEST(Interrupt, SignalsDuringARunExit128PlusTheSignalAndRemoveTheOutput)
{
    TempDir dir;
    const std::string in = dir.file("big.tif");
    {
        GDALAllRegister();
        char** opts = CSLSetNameValue(nullptr, "SPARSE_OK", "TRUE");
        GDALDataset* ds = GetGDALDriverManager()->GetDriverByName("GTiff")->Create(in.c_str(), 8000, 8000, 6, GDT_Byte, opts);
        CSLDestroy(opts);
        ASSERT_NE(ds, nullptr);
        GDALClose(ds);
    }
    for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
        const std::string out = dir.file("kt.tif");
        int pipefd[2];
        ASSERT_EQ(pipe(pipefd), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipefd[1], 2);
        posix_spawn_file_actions_addclose(&actions, pipefd[0]);
        const std::string exe = std::string(TAV_BIN_DIR) + "/tavtransform";
        std::vector<std::string> args = {exe, "kt", in, out};
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_t pid = 0;
        ASSERT_EQ(posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(pipefd[1]);
        // Wait until the bar has moved, so the signal lands mid-run.
        std::string seen;
        char c;
        while (seen.find("0.") == std::string::npos && read(pipefd[0], &c, 1) == 1)
            seen += c;
        kill(pid, sig);
        int status = 0;
        waitpid(pid, &status, 0);
        while (read(pipefd[0], &c, 1) == 1)
            seen += c;
        close(pipefd[0]);
        ASSERT_TRUE(WIFEXITED(status)) << seen;
        EXPECT_EQ(WEXITSTATUS(status), 128 + sig) << seen;
        EXPECT_FALSE(tavtest::Exists(out));
        EXPECT_EQ(seen.find("100 - done"), std::string::npos) << "stopped before the end";
    }
}

TEST(Module, ExportsGetAlgoObjAlone)
{
    TempDir dir;
    const std::string cmd = "nm -D --defined-only " + Quote(std::string(TAV_BIN_DIR) + "/../lib/libTavTransformFunc.so") +
                            " > " + Quote(dir.file("nm.txt"));
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    std::istringstream lines(Slurp(dir.file("nm.txt")));
    std::vector<std::string> symbols;
    for (std::string line; std::getline(lines, line);)
        if (!line.empty())
            symbols.push_back(line.substr(line.rfind(' ') + 1));
    EXPECT_EQ(symbols, std::vector<std::string>{"GetAlgoObj"});
}

} // namespace
