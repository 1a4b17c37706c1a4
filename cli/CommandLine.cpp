#include "CommandLine.h"

#include "CreationOptions.h"
#include "FileChecks.h"
#include "Options.h"
#include "PcaStatsCheck.h"
#include "Records.h"

// Option parsing, then the file checks that protect the user's data, then the plug-in's record
// (and the statistics-file size check that needs it).
ParseResult ParseCommandLine(const std::vector<std::string>& args)
{
    Options options;
    ParseResult parsed = ParseOptions(args, options);
    if (parsed.kind != ParseResult::Run)
        return parsed;
    if (std::string problem = CheckFiles(options); !problem.empty())
        return Usage(problem, options.command);
    if (std::string problem = CheckCreationOptions(options); !problem.empty())
        return Usage(problem, options.command);
    ParseResult result = BuildRecord(std::move(options));
    if (result.kind == ParseResult::Run)
        if (std::string problem = PcaStatsProblem(result.request); !problem.empty())
            return Usage(problem, result.request.command);
    return result;
}
