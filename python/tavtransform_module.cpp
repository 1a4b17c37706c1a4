// The `tavtransform` Python module: the same commands and options as the command line, the
// plug-in loaded the same way, numpy arrays in and out through GDAL's in-memory files.
#include "BandNames.h"
#include "CommandLine.h"
#include "CreationOptions.h"
#include "Options.h"
#include "PluginLoader.h"
#include "Records.h"
#include "MaskOptions.h"
#include "RunReport.h"
#include "StatsFiles.h"
#include "ValueChecks.h"
#include "FileChecks.h"
#include "KeptFiles.h"

#include "OrvAlgo/IOrvAlgo.h"
#include "OrvDataSource/GdalErrors.h"

#include <cpl_vsi.h>
#include <gdal_priv.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

namespace py = pybind11;
namespace fs = std::filesystem;

namespace {

py::object g_error;     // tavtransform.Error
py::object g_cancelled; // tavtransform.Cancelled, an Error

[[noreturn]] void Raise(int code, const std::string& text)
{
    const py::object& type = code == -1010 ? g_cancelled : g_error;
    py::object e = type(std::to_string(code) + ": " + text);
    e.attr("code") = code;
    e.attr("text") = text;
    PyErr_SetObject(type.ptr(), e.ptr());
    throw py::error_already_set();
}

// Beside this module (the build tree), then two levels up (lib/python3/dist-packages).
GetAlgoObjFn Plugin(const std::string& overridePath)
{
    Dl_info self{};
    dladdr(reinterpret_cast<void*>(&Plugin), &self);
    const fs::path dir = fs::path(self.dli_fname ? self.dli_fname : ".").parent_path();
    std::vector<std::string> candidates = {overridePath};
    if (overridePath.empty())
        candidates = {(dir / "libTavTransformFunc.so").string(), (dir / "../../libTavTransformFunc.so").string()};
    if (const LoadedPlugin plugin = LoadPlugin(candidates); plugin.create)
        return plugin.create;
    std::string tried;
    for (const std::string& path : candidates)
        tried += " " + path;
    Raise(1, "cannot load the TavTransformFunc plug-in; tried" + tried);
}

// Progress to the caller's callable; Ctrl-C or an exception in the callable stops the run through Terminate.
struct ProgressBridge {
    OrvAlgo::IOrvAlgo* algo;
    py::object callback;
    std::optional<py::error_already_set> pending;

    int operator()(double percent, const QString& message)
    {
        py::gil_scoped_acquire gil;
        if (pending)
            return 1;
        try {
            if (PyErr_CheckSignals() != 0)
                throw py::error_already_set();
            if (!callback.is_none() && callback(percent, message.toStdString()).equal(py::bool_(false)))
                algo->Terminate();
        } catch (py::error_already_set& e) {
            pending = std::move(e);
            algo->Terminate();
        }
        return 1;
    }
};

py::object g_eigenTable; // tavtransform.EigenTable, a list that also says over which pixels

py::object EigenTuples(const boost::any& record)
{
    py::list rows;
    for (const EigenRow& row : EigenTable(record))
        rows.append(py::make_tuple(row.component, row.eigenvalue, row.percent, row.cumulative));
    py::object table = g_eigenTable(rows);
    long long used = 0, total = 0;
    const bool counted = StatisticsCount(record, used, total);
    table.attr("pixels") = counted ? py::object(py::make_tuple(used, total)) : py::none();
    table.attr("statistics_over") = counted ? py::object(py::str(StatisticsOverLine(used, total))) : py::none();
    return table;
}

py::object Execute(const Request& req, const py::object& progress)
{
    std::unique_ptr<OrvAlgo::IOrvAlgo> algo(Plugin(req.pluginPath)());
    if (const StatsVerdict before = CheckStatisticsRead(req); before.status == 2)
        throw py::value_error(before.message);
    else if (before.status != 0)
        Raise(1, before.message);
    // Every way out but success (an exception included) puts the user's files back.
    KeptFiles kept;
    if (const std::string problem = kept.Keep(req.guarded); !problem.empty())
        throw py::value_error(problem);
    OrvAlgo::ProgressSignal signal;
    ProgressBridge bridge{algo.get(), progress, {}};
    signal.connect([&bridge](double p, const QString& m, void*) { return bridge(p, m); });
    algo->SetProgressSignal(&signal);
    algo->SetParams(req.record);
    if (!req.warning.empty() && PyErr_WarnEx(PyExc_UserWarning, req.warning.c_str(), 1) != 0)
        throw py::error_already_set();
    ApplyCreationOptions(req);
    bool ok = false;
    OrvDataSource::ClearGdalError();
    {
        py::gil_scoped_release release;
        ok = algo->Execute();
    }
    if (bridge.pending)
        throw std::move(*bridge.pending);
    int code = 0;
    QString text;
    algo->GetErrorInfo(code, text);
    if (!ok) {
        code = code == 0 ? 1 : code;
        Raise(code, text.isEmpty() ? DescribeFailure(req, code) : text.toStdString());
    }
    if (HostSawFailure())
        Raise(1, "the transform reported success, but GDAL failed during the run:\n" + RecordedFailureLines());
    const StatsVerdict after = CheckStatisticsWritten(req);
    if (after.status != 0)
        Raise(1, after.message);
    if (!after.warning.empty())
        PyErr_WarnEx(PyExc_RuntimeWarning, after.warning.c_str(), 1);
    if (const std::string problem = FinishOutput(req); !problem.empty())
        Raise(1, problem);
    kept.Commit();
    std::vector<std::string> warnings = HostWarnings();
    // One warning per band a masked Fourier or wavelet run filled.
    std::istringstream filled(FilledPixelsWarning(algo->GetParams()));
    for (std::string line; std::getline(filled, line);)
        warnings.push_back(line);
    for (const std::string& line : warnings)
        if (PyErr_WarnEx(PyExc_RuntimeWarning, line.c_str(), 1) != 0)
            throw py::error_already_set();
    if (req.statsOnly)
        return EigenTuples(algo->GetParams());
    return py::str(OutputFile(req));
}

// A file name from a str or an os.PathLike; anything else is refused rather than turned into text.
std::string FileName(const char* what, const py::handle& value)
{
    const bool pathLike = py::isinstance<py::str>(value) || py::hasattr(value, "__fspath__");
    py::object name = pathLike ? py::module_::import("os").attr("fspath")(value) : py::none();
    if (!py::isinstance<py::str>(name))
        throw py::type_error(std::string(what) + " takes a file name as str or os.PathLike, not " +
                             py::str(py::type::of(value).attr("__name__")).cast<std::string>());
    try {
        return name.cast<std::string>();
    } catch (const py::cast_error&) { // a name os.fsdecode made from bytes that are not UTF-8
        throw py::value_error(std::string(what) + " " + py::repr(name).cast<std::string>() +
                              " is not valid UTF-8; the transforms take file names as Unicode text");
    }
}

// Keyword options as command-line words: of="ENVI" -> -of ENVI, b=[1, 4] -> -b 1 -b 4, corr=True -> -corr.
std::vector<std::string> Words(const std::string& command, const py::kwargs& options)
{
    static const std::set<std::string> flags = {"-corr", "-center", "-no-center", "-stats-only", "-unscale", "-q"};
    static const std::set<std::string> files = {"-stats", "-quicklook", "-coefficients", "--plugin"};
    std::vector<std::string> args = {command, "-q"};
    for (const auto& [key, value] : options) {
        std::string flag = key.cast<std::string>();
        std::replace(flag.begin(), flag.end(), '_', '-');
        flag = (flag == "plugin" ? "--" : "-") + flag;
        // mask=False is -nomask; srcnodata=[v, ...] repeats -srcnodata, whose values add up.
        if (flag == "-mask") {
            if (!value.is_none() && PyObject_IsTrue(value.ptr()) == 0)
                args.push_back("-nomask");
            continue;
        }
        if (flags.count(flag)) { // any truthy value sets a flag, as Python's own tests do
            if (PyObject_IsTrue(value.ptr()) == 1 && flag != "-q")
                args.push_back(flag);
            else if (flag == "-center" && !value.is_none() && PyObject_IsTrue(value.ptr()) == 0)
                args.push_back("-no-center"); // centring is the default
        } else if (value.is_none()) {
            continue;
        } else if (files.count(flag)) {
            args.insert(args.end(), {flag, FileName(("option " + key.cast<std::string>()).c_str(), value)});
        } else if (py::isinstance<py::bool_>(value)) {
            throw py::type_error("option " + key.cast<std::string>() + " takes a value, not True or False");
        } else if (py::isinstance<py::list>(value) || py::isinstance<py::tuple>(value)) {
            for (const auto& item : value)
                args.insert(args.end(), {flag, py::str(item).cast<std::string>()});
        } else {
            args.insert(args.end(), {flag, py::str(value).cast<std::string>()});
        }
    }
    return args;
}

ParseResult Checked(ParseResult parsed)
{
    if (parsed.kind == ParseResult::UsageError)
        throw py::value_error(parsed.text);
    if (parsed.kind == ParseResult::Done)
        throw py::value_error("a help or version request runs nothing");
    return parsed;
}

py::object Run(const std::string& command, const py::object& input, const py::object& output,
               const py::object& progress, const py::kwargs& options)
{
    std::vector<std::string> args = Words(command, options);
    args.push_back(FileName("input", input));
    if (!output.is_none())
        args.push_back(FileName("output", output));
    return Execute(Checked(ParseCommandLine(args)).request, progress);
}

// ---- numpy arrays through /vsimem ----

// numpy's types and GDAL's, both ways. Made per call: a static would outlive the interpreter.
std::array<std::pair<py::dtype, GDALDataType>, 7> TypePairs()
{
    return {{{py::dtype::of<uint8_t>(), GDT_Byte},   {py::dtype::of<uint16_t>(), GDT_UInt16},
             {py::dtype::of<int16_t>(), GDT_Int16},  {py::dtype::of<uint32_t>(), GDT_UInt32},
             {py::dtype::of<int32_t>(), GDT_Int32},  {py::dtype::of<float>(), GDT_Float32},
             {py::dtype::of<double>(), GDT_Float64}}};
}

GDALDataType GdalType(const py::dtype& d)
{
    for (const auto& [dt, type] : TypePairs())
        if (d.is(dt) || d.equal(dt))
            return type;
    return GDT_Unknown;
}

py::dtype NumpyType(GDALDataType t)
{
    for (const auto& [dt, type] : TypePairs())
        if (type == t)
            return dt;
    return py::dtype::of<double>();
}

// A (bands, rows, cols) or (rows, cols) array as a GeoTIFF in memory; other dtypes become Float64.
void WriteArray(const std::string& path, py::array array)
{
    if (array.ndim() != 2 && array.ndim() != 3)
        throw py::value_error("expected a (rows, cols) or (bands, rows, cols) array");
    if (array.dtype().kind() == 'c')
        throw py::value_error("complex arrays are not taken: the transforms read real pixels; pass .real and "
                              ".imag separately (fft_inverse takes them as band pairs)");
    GDALDataType type = GdalType(array.dtype());
    if (type == GDT_Unknown) {
        array = py::array_t<double, py::array::c_style | py::array::forcecast>(array);
        type = GDT_Float64;
    }
    array = py::array::ensure(array, py::array::c_style);
    const int bands = array.ndim() == 3 ? static_cast<int>(array.shape(0)) : 1;
    const int rows = static_cast<int>(array.shape(array.ndim() - 2));
    const int cols = static_cast<int>(array.shape(array.ndim() - 1));
    GDALDriver* gtiff = GetGDALDriverManager()->GetDriverByName("GTiff");
    std::unique_ptr<GDALDataset> ds(gtiff->Create(path.c_str(), cols, rows, bands, type, nullptr));
    if (!ds || ds->RasterIO(GF_Write, 0, 0, cols, rows, const_cast<void*>(array.data()), cols, rows, type, bands,
                            nullptr, 0, 0, 0, nullptr) != CE_None)
        Raise(1, "cannot hold the array as a raster in memory");
}

py::array ReadArray(const std::string& path, bool squeeze)
{
    std::unique_ptr<GDALDataset> ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    if (!ds)
        Raise(1, "cannot read the result back");
    const GDALDataType type = ds->GetRasterBand(1)->GetRasterDataType();
    const int bands = ds->GetRasterCount(), rows = ds->GetRasterYSize(), cols = ds->GetRasterXSize();
    std::vector<py::ssize_t> shape = {bands, rows, cols};
    if (squeeze && bands == 1)
        shape.erase(shape.begin());
    py::array out(NumpyType(type), shape);
    if (ds->RasterIO(GF_Read, 0, 0, cols, rows, out.mutable_data(), cols, rows, type, bands, nullptr, 0, 0, 0,
                     nullptr) != CE_None)
        Raise(1, "cannot read the result back");
    return out;
}

// An array has no metadata: unscale=(scale, offset), or one such pair per band, stands in for the
// bands' own, and becomes -unscale. The options to run with.
py::kwargs WithArrayScales(const std::string& path, const py::kwargs& options)
{
    py::kwargs copy = py::reinterpret_steal<py::kwargs>(PyDict_Copy(options.ptr()));
    if (!copy.contains("unscale") || copy["unscale"].is_none() ||
        (py::isinstance<py::bool_>(copy["unscale"]) && !copy["unscale"].cast<bool>()))
        return copy;
    const char* usage = "unscale= takes (scale, offset) for every band, or a list of one such pair per band";
    if (py::isinstance<py::bool_>(copy["unscale"]))
        throw py::value_error(std::string("an array has no scale or offset of its own: ") + usage);
    std::vector<std::pair<double, double>> pairs;
    try {
        const py::sequence value = copy["unscale"];
        if (py::len(value) == 2 && !py::isinstance<py::sequence>(value[0]))
            pairs.emplace_back(value[0].cast<double>(), value[1].cast<double>());
        else
            for (const auto& pair : value)
                pairs.push_back(pair.cast<std::pair<double, double>>());
    } catch (const py::cast_error&) {
        throw py::value_error(usage);
    }
    std::unique_ptr<GDALDataset> ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_UPDATE));
    if (!ds || (pairs.size() != 1 && pairs.size() != static_cast<size_t>(ds->GetRasterCount())))
        throw py::value_error(usage);
    for (int b = 1; b <= ds->GetRasterCount(); ++b) {
        const auto& [scale, offset] = pairs[pairs.size() == 1 ? 0 : b - 1];
        ds->GetRasterBand(b)->SetScale(scale);
        ds->GetRasterBand(b)->SetOffset(offset);
    }
    copy["unscale"] = true;
    return copy;
}

// One run on an array: input and output live in a private /vsimem folder, removed on every path.
py::array RunOnArray(const std::string& command, const py::array& array, const py::kwargs& options)
{
    // Its output lives in memory only as long as the call: creation options would shape nothing.
    if (options.contains("co") && !options["co"].is_none())
        throw py::value_error("co= sets how an output file is stored, and an array helper keeps no file: "
                              "use tavtransform.run() with an output path for that");
    static std::atomic<int> serial{0};
    GDALAllRegister();
    const std::string dir = "/vsimem/tavtransform-" + std::to_string(serial++);
    struct Cleanup {
        std::string dir;
        ~Cleanup() { VSIRmdirRecursive(dir.c_str()); }
    } cleanup{dir};
    VSIMkdir(dir.c_str(), 0755);
    WriteArray(dir + "/in.tif", array);
    Options o;
    // The files are ours and GDAL's alone, so the checks that protect a user's files are not needed.
    std::vector<std::string> args = Words(command, WithArrayScales(dir + "/in.tif", options));
    args.insert(args.end(), {dir + "/in.tif", dir + "/out.tif"});
    Checked(ParseOptions(args, o));
    o.inputBands = array.ndim() == 3 ? static_cast<int>(array.shape(0)) : 1;
    if (const std::string problem = FormatProblem(o, o.inputBands); !problem.empty())
        throw py::value_error(problem);
    if (const std::string problem = command == "fft" ? SpectrumProblem(o.input, o.bands) : ""; !problem.empty())
        throw py::value_error(problem);
    Execute(Checked(BuildRecord(std::move(o))).request, py::none());
    return ReadArray(dir + "/out.tif", array.ndim() == 2);
}

} // namespace

PYBIND11_MODULE(tavtransform, m)
{
    m.doc() = "Image transforms (Tasseled Cap, principal components, MNF, Fourier, wavelet) from Python.";
    g_error = py::reinterpret_steal<py::object>(
        PyErr_NewException("tavtransform.Error", PyExc_RuntimeError, nullptr));
    m.attr("Error") = g_error;
    g_cancelled = py::reinterpret_steal<py::object>(
        PyErr_NewException("tavtransform.Cancelled", g_error.ptr(), nullptr));
    m.attr("Cancelled") = g_cancelled;
    m.attr("__version__") = TAV_VERSION;
    py::dict members;
    members["__module__"] = "tavtransform";
    members["__doc__"] = "The eigenvalue table of pca with stats_only=True: (component, eigenvalue, percent, cumulative\n"
                         "percent) tuples. Where masked pixels were left out of the statistics, .pixels is (used, total)\n"
                         "and .statistics_over the line the command line prints; else both are None.";
    g_eigenTable = py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(&PyType_Type))(
        "EigenTable", py::make_tuple(py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(&PyList_Type))), members);
    m.attr("EigenTable") = g_eigenTable;
    m.def("run", &Run, py::arg("command"), py::arg("input"), py::arg("output") = py::none(),
          py::arg("progress") = py::none(),
          "run(command, input, output=None, progress=None, **options): one tavtransform command.\n"
          "Options are the command line's without the dash (sensor='etm', b=[1, 4], ot='Int16', corr=True,\n"
          "co=['TILED=YES', 'COMPRESS=DEFLATE']).\n"
          "Returns the output path, or for pca with stats_only=True the eigenvalue table as\n"
          "(component, eigenvalue, percent, cumulative percent) tuples (an EigenTable). Raises tavtransform.Error\n"
          "(.code, .text) when the run fails; progress(percent, message) returning False cancels and raises\n"
          "tavtransform.Cancelled, a subclass of Error. Files the run may write are kept and put back on failure.");
    auto helper = [&m](const char* name, const char* command, const char* doc) {
        m.def(name, [command](const py::array& a, const py::kwargs& options) { return RunOnArray(command, a, options); },
              py::arg("array"), doc);
    };
    helper("kt", "kt",
           "kt(array, sensor='tm', coefficients=None, unscale=None): Tasseled Cap components of a (bands, rows, cols)\n"
           "array. sensor: tm, mss, etm, oli, s2, modis, tm-sr; coefficients: a CSV file of your own set;\n"
           "unscale=(scale, offset), or one pair per band: the stored values are value x scale + offset.");
    helper("fft", "fft", "fft(array, b=None): centred spectrum, a real and an imaginary band per band.");
    helper("fft_inverse", "fft-inverse", "fft_inverse(array, ot='Float32'): bands from real/imaginary pairs.");
    helper("dwt", "dwt", "dwt(array): one-level wavelet quadrants of every band.");
    helper("dwt_inverse", "dwt-inverse", "dwt_inverse(array): bands rebuilt from wavelet quadrants.");
}
