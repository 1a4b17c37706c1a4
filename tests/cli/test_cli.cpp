#include "TestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
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

std::string SixBandScene(const TempDir& dir, int bands = 6)
{
    tavtest::RasterShape shape;
    shape.width = 9;
    shape.height = 7;
    shape.bands = bands;
    shape.type = GDT_Byte;
    const std::string path = dir.file("scene.tif");
    tavtest::WriteRaster(path, shape, [](int b, int x, int y) { return b * 30 + x + y; });
    return path;
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

TEST(Protection, OutputOrStatisticsFileEqualToTheInputIsRefusedAndTheInputKept)
{
    TempDir dir;
    const std::string in = SixBandScene(dir);
    const std::string before = Slurp(in);
    const std::string sameViaDots = dir.file("./sub/../scene.tif");
    std::filesystem::create_directory(dir.file("sub"));
    const std::vector<std::vector<std::string>> cases = {
        {"kt", in, in},
        {"fft", in, sameViaDots},
        {"mnf", "-stats", in, in, dir.file("o.tif")},
        {"pca", "-stats", sameViaDots, in, dir.file("o.tif")},
        {"pca", "-stats-only", "-stats", in, in},
    };
    for (const auto& args : cases) {
        const CliResult r = RunCli(dir, args);
        EXPECT_EQ(r.status, 2) << args[0];
        EXPECT_NE(r.err.find("same file as INPUT"), std::string::npos) << r.err;
        EXPECT_EQ(Slurp(in), before);
    }
}

// A wavelet run removes OUTPUT-stem + "_temp.tif" when it ends, whatever was there.
TEST(Protection, WaveletRunsRefuseWhenTheirTemporaryNameIsTaken)
{
    TempDir dir;
    const std::string in = SixBandScene(dir);
    tavtest::WriteText(dir.file("result_temp.tif"), "the user's own file");
    for (const char* cmd : {"dwt", "dwt-inverse"}) {
        const CliResult r = RunCli(dir, {cmd, "-q", in, dir.file("result.tif")});
        EXPECT_EQ(r.status, 2) << cmd;
        EXPECT_NE(r.err.find("result_temp.tif' exists"), std::string::npos) << r.err;
        EXPECT_EQ(Slurp(dir.file("result_temp.tif")), "the user's own file");
    }
    // The input itself under that name.
    std::filesystem::copy_file(in, dir.file("x_temp.tif"));
    const CliResult r = RunCli(dir, {"dwt", "-q", dir.file("x_temp.tif"), dir.file("x.tif")});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(tavtest::Exists(dir.file("x_temp.tif")));
}

TEST(Protection, MissingInputIsNamed)
{
    TempDir dir;
    const CliResult r = RunCli(dir, {"kt", dir.file("nowhere.tif"), dir.file("o.tif")});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("nowhere.tif' does not exist"), std::string::npos) << r.err;
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

// Ctrl-C reaches Terminate through the CLI's signal thread; the plug-in removes the output.
TEST(Interrupt, CtrlCDuringARunExits130AndRemovesTheOutput)
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
    kill(pid, SIGINT);
    int status = 0;
    waitpid(pid, &status, 0);
    while (read(pipefd[0], &c, 1) == 1)
        seen += c;
    close(pipefd[0]);
    ASSERT_TRUE(WIFEXITED(status)) << seen;
    EXPECT_EQ(WEXITSTATUS(status), 130) << seen;
    EXPECT_FALSE(tavtest::Exists(out));
    EXPECT_EQ(seen.find("100 - done"), std::string::npos) << "stopped before the end";
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
