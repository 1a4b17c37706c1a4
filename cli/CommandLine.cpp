#include "CommandLine.h"

#include "FileChecks.h"
#include "Options.h"
#include "Records.h"

// Option parsing, then the file checks that protect the user's data, then the plug-in's record.
ParseResult ParseCommandLine(const std::vector<std::string>& args)
{
    Options options;
    ParseResult parsed = ParseOptions(args, options);
    if (parsed.kind != ParseResult::Run)
        return parsed;
    if (std::string problem = CheckFiles(options); !problem.empty())
        return Usage(problem, options.command);
    return BuildRecord(std::move(options));
}
