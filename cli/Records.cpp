#include "Records.h"

#include "KtRecord.h"
#include "StatsFiles.h"

namespace {

QString Q(const std::string& s) { return QString::fromStdString(s); }

// The three records name their files alike.
template <class Record>
Record WithFiles(const Options& o)
{
    Record r;
    r.strInputFile = Q(o.input);
    r.strStatFile = Q(o.stats);
    r.strOutputFile = Q(o.output);
    r.strFormat = Q(o.format);
    return r;
}

ParseResult ForwardPca(const Options& o, boost::any& record)
{
    auto r = WithFiles<stForwardPCAInfo>(o);
    r.nOutDataType = PixelTypeIndex(o.outType);
    r.bSubtractMean = o.center;
    r.bCovariance = !o.corr;
    r.bStepwise = o.request.statsOnly;
    r.nComponents = 0;
    if (!o.request.statsOnly) {
        const int available = o.inputBands;
        r.nComponents = o.components ? o.components : available;
        if (available > 0 && r.nComponents > available)
            return Usage("option -n: INPUT has only " + std::to_string(available) + " bands", o.command);
    }
    record = r;
    return {ParseResult::Run, {}, {}, {}};
}

// Forward Fourier without -b: every band in order; the plug-in reads an empty list as none.
std::vector<int> FourierBands(const Options& o)
{
    if (!o.bands.empty() || o.command != "fft")
        return o.bands;
    std::vector<int> all(o.inputBands);
    for (size_t i = 0; i < all.size(); ++i)
        all[i] = static_cast<int>(i) + 1;
    return all;
}

stTransInfo TransRecord(const Options& o)
{
    auto r = WithFiles<stTransInfo>(o);
    const std::string& c = o.command;
    r.bForward = c.find("-inverse") == std::string::npos;
    if (c == "kt") {
        r.nTransType = 4;
        r.nSensorType = SensorCode(o.sensor);
    } else if (c == "fft" || c == "fft-inverse") {
        r.nTransType = 2;
        r.vecBands = FourierBands(o);
        r.nOutDataType = PixelTypeIndex(o.outType);
    } else if (c == "dwt" || c == "dwt-inverse") {
        r.nTransType = 3;
    } else {
        r.nTransType = 1;
    }
    return r;
}

} // namespace

ParseResult BuildRecord(Options o)
{
    if (o.command == "pca") {
        if (ParseResult bad = ForwardPca(o, o.request.record); bad.kind != ParseResult::Run)
            return bad;
    } else if (o.command == "pca-inverse") {
        auto r = WithFiles<stInversePCAInfo>(o);
        r.nOutDataType = PixelTypeIndex(o.outType);
        o.request.record = r;
    } else {
        o.request.record = TransRecord(o);
        if (o.command == "kt")
            if (ParseResult bad = KtRequest(o); bad.kind != ParseResult::Run)
                return bad;
    }
    if (TakesMaskOptions(o.command)) {
        const std::string outType = o.command == "kt" || o.command == "mnf"    ? "Float32"
                                    : o.command == "mnf-inverse"               ? MnfInverseOutputType(o.stats)
                                                                               : o.outType;
        if (std::string problem = FillOptionsProblem(o.command, o.mask); !problem.empty())
            return Usage(problem, o.command);
        if (std::string problem = MaskOptionsProblem(o.mask, o.inputBands, outType); !problem.empty())
            return Usage(problem, o.command);
        o.request.record = MaskedRecord(o.request.record, o.mask);
    }
    ParseResult result;
    result.kind = ParseResult::Run;
    result.request = std::move(o.request);
    return result;
}

PlannedOutput PlanOutput(const Options& o, int inputBands)
{
    using namespace OrvDataSource;
    const auto chosenType = static_cast<PixelDataType>(PixelTypeIndex(o.outType) + 1);
    const std::string& c = o.command;
    if (c == "kt")
        return {KtOutputBands(o), PDT_Float32};
    if (c == "fft")
        return {2 * static_cast<int>(o.bands.empty() ? inputBands : o.bands.size()), PDT_Float32};
    if (c == "fft-inverse")
        return {inputBands / 2, chosenType};
    if (c == "pca")
        return {o.request.statsOnly ? 0 : o.components ? o.components : inputBands, chosenType};
    if (c == "pca-inverse")
        return {inputBands, chosenType};
    return {inputBands, PDT_Float32}; // wavelet and MNF runs keep the band count in Float32
}
