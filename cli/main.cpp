// tavtransform: parses a command line into a parameter record, loads the plug-in the way a host
// does, runs it with progress on stderr, and turns Ctrl-C into Terminate.
#include "BandNames.h"
#include "CommandLine.h"
#include "CreationOptions.h"
#include "KeptFiles.h"
#include "MaskOptions.h"
#include "PluginLoader.h"
#include "RunReport.h"
#include "StatsFiles.h"
#include "TermProgress.h"

#include "OrvAlgo/IOrvAlgo.h"
#include "OrvDataSource/GdalErrors.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>

namespace fs = std::filesystem;

namespace {

enum ExitStatus { kOk = 0, kFailed = 1, kUsage = 2, kSignalBase = 128 };

std::string ExecutableDir()
{
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
}

// Beside the executable first, then the installed layout's ../lib.
std::vector<std::string> PluginCandidates(const std::string& overridePath)
{
    if (!overridePath.empty())
        return {overridePath};
    const std::string dir = ExecutableDir();
    return {dir + "/libTavTransformFunc.so", dir + "/../lib/libTavTransformFunc.so"};
}

// Waits for SIGINT, SIGTERM and SIGHUP on its own thread, so Terminate never runs inside a signal handler.
class SignalWatcher {
public:
    explicit SignalWatcher(OrvAlgo::IOrvAlgo* algo) : m_algo(algo)
    {
        m_thread = std::thread([this] { Watch(); });
    }
    ~SignalWatcher()
    {
        pthread_kill(m_thread.native_handle(), SIGUSR1);
        m_thread.join();
    }
    // The signal that stopped the run, 0 when none came.
    int Signal() const { return m_signal.load(); }

    // Called before any thread starts, so every thread inherits the blocked set.
    static void BlockSignals()
    {
        sigset_t set = Set();
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
    }

private:
    static sigset_t Set()
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGHUP);
        sigaddset(&set, SIGUSR1);
        return set;
    }
    void Watch()
    {
        const sigset_t set = Set();
        for (;;) {
            int sig = 0;
            if (sigwait(&set, &sig) != 0 || sig == SIGUSR1)
                return;
            m_signal = sig;
            m_algo->Terminate();
        }
    }

    OrvAlgo::IOrvAlgo* m_algo;
    std::atomic<int> m_signal{0};
    std::thread m_thread;
};

void PrintEigenTable(const boost::any& params)
{
    std::printf("%-10s %16s %14s %14s\n", "component", "eigenvalue", "percent", "cumulative");
    for (const EigenRow& row : EigenTable(params))
        std::printf("%-10zu %16.6f %14.4f %14.4f\n", row.component, row.eigenvalue, row.percent, row.cumulative);
    long long used = 0, total = 0;
    if (StatisticsCount(params, used, total))
        std::printf("%s\n", StatisticsOverLine(used, total).c_str());
}

// The plug-in's failure, its plain-language reading, GDAL's reason and the I/O that failed.
int ReportPluginFailure(OrvAlgo::IOrvAlgo& algo, const Request& req)
{
    int code = 0;
    QString text;
    algo.GetErrorInfo(code, text);
    // The principal component runs leave code and text unset on failure; the host says what it knows.
    if (code == 0)
        code = 1;
    std::fprintf(stderr, "ERROR %d: %s\n", code,
                 text.isEmpty() ? DescribeFailure(req, code).c_str() : text.toLocal8Bit().constData());
    if (const std::string plain = ExplainPluginText(text); !plain.empty())
        std::fprintf(stderr, "%s\n", plain.c_str());
    const OrvDataSource::GdalError gdal = OrvDataSource::LastGdalError();
    if (!gdal.strMessage.isEmpty())
        std::fprintf(stderr, "  GDAL: %s\n", gdal.strMessage.toLocal8Bit().constData());
    std::fputs(OrvDataSource::RecordedFailures().isEmpty() ? "" : RecordedFailureLines().c_str(), stderr);
    return kFailed;
}

// A run refused before it starts (usage, 2) or failed by what the host found (1).
int Refuse(const Request& req, int status, const std::string& message)
{
    if (status == kUsage)
        std::fprintf(stderr, "tavtransform: %s\nTry 'tavtransform %s --help'.\n", message.c_str(), req.command.c_str());
    else
        std::fprintf(stderr, "ERROR 1: %s\n", message.c_str());
    return status;
}

// Runs the plug-in with the signal thread watching; the signal number that stopped it, or 0.
int ExecuteWatched(OrvAlgo::IOrvAlgo& algo, bool& ok)
{
    OrvDataSource::ClearGdalError();
    SignalWatcher watcher(&algo);
    ok = algo.Execute();
    return watcher.Signal();
}

int Run(const Request& req)
{
    const LoadedPlugin plugin = LoadPlugin(PluginCandidates(req.pluginPath));
    if (!plugin.create) {
        std::fprintf(stderr, "ERROR: cannot load the TavTransformFunc plug-in:\n%s", plugin.error.c_str());
        return kFailed;
    }
    if (!req.warning.empty())
        std::fprintf(stderr, "%s\n", req.warning.c_str());
    std::unique_ptr<OrvAlgo::IOrvAlgo> algo(plugin.create());
    OrvAlgo::ProgressSignal signal;
    TermProgress progress(stderr);
    if (!req.quiet)
        signal.connect([&progress](double p, const QString& m, void*) {
            // The closing 100 comes after failures too; the bar ends only when the run succeeded.
            if (p < 100.0 || !m.isEmpty())
                progress.Update(p, m);
            return 1;
        });
    algo->SetProgressSignal(&signal);
    algo->SetParams(req.record);
    ApplyCreationOptions(req);

    // What cannot end well is refused before anything of the user's is touched.
    if (const StatsVerdict before = CheckStatisticsRead(req); before.status != kOk)
        return Refuse(req, before.status, before.message);
    KeptFiles kept;
    if (const std::string problem = kept.Keep(req.guarded); !problem.empty())
        return Refuse(req, kUsage, problem);
    bool ok = false;
    const int stoppedBy = ExecuteWatched(*algo, ok);
    const bool hostFailed = ok && HostSawFailure();
    if (!req.quiet) {
        if (ok && !hostFailed)
            progress.Update(100.0, QString());
        progress.Finish();
    }
    // The plug-in stays loaded: GDAL may still hold objects it made until exit. Every way out
    // but success puts the user's files back as they were.
    int status = kOk;
    if (stoppedBy) {
        std::fprintf(stderr, "Interrupted; the partial output was removed.\n");
        status = kSignalBase + stoppedBy;
    } else if (hostFailed) {
        ReportHostFailure(req);
        status = kFailed;
    } else if (!ok) {
        status = ReportPluginFailure(*algo, req);
    } else if (const StatsVerdict after = CheckStatisticsWritten(req); after.status != kOk) {
        status = Refuse(req, kFailed, after.message);
    } else {
        if (!after.warning.empty())
            std::fprintf(stderr, "%s\n", after.warning.c_str());
        if (const std::string problem = FinishOutput(req); !problem.empty())
            status = Refuse(req, kFailed, problem);
    }
    if (status != kOk) {
        for (const std::string& path : kept.Restore())
            std::fprintf(stderr, "Put back your earlier %s.\n", path.c_str());
        return status;
    }
    kept.Commit();
    for (const std::string& line : HostWarnings())
        std::fprintf(stderr, "%s\n", line.c_str());
    if (const std::string filled = FilledPixelsWarning(algo->GetParams()); !filled.empty())
        std::fprintf(stderr, "%s\n", filled.c_str());
    if (req.statsOnly)
        PrintEigenTable(algo->GetParams());
    if (long long used = 0, total = 0; req.command == "mnf" && !req.quiet && StatisticsCount(algo->GetParams(), used, total))
        std::printf("%s\n", StatisticsOverLine(used, total).c_str());
    return kOk;
}

} // namespace

int main(int argc, char** argv)
{
    SignalWatcher::BlockSignals();
    const ParseResult parsed = ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    switch (parsed.kind) {
    case ParseResult::Done:
        std::fputs(parsed.text.c_str(), stdout);
        return kOk;
    case ParseResult::UsageError:
        std::fprintf(stderr, "tavtransform: %s\n%s\n", parsed.text.c_str(), parsed.hint.c_str());
        return kUsage;
    case ParseResult::Run:
        break;
    }
    return Run(parsed.request);
}
