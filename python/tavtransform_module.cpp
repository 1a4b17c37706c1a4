// The `tavtransform` Python module: the same commands and options as the command line, the
// plug-in loaded the same way, numpy arrays in and out through GDAL's in-memory files.
#include "BandNames.h"
#include "CommandLine.h"
#include "Options.h"
#include "PluginLoader.h"
#include "Records.h"
#include "RunReport.h"

#include "OrvAlgo/IOrvAlgo.h"

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

namespace py = pybind11;
namespace fs = std::filesystem;

namespace {

py::object g_error; // tavtransform.Error

[[noreturn]] void Raise(int code, const std::string& text)
{
    py::object e = g_error(std::to_string(code) + ": " + text);
    e.attr("code") = code;
    e.attr("text") = text;
    PyErr_SetObject(g_error.ptr(), e.ptr());
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

py::object EigenTuples(const boost::any& record)
{
    py::list table;
    for (const EigenRow& row : EigenTable(record))
        table.append(py::make_tuple(row.component, row.eigenvalue, row.percent, row.cumulative));
    return table;
}

py::object Execute(const Request& req, const py::object& progress)
{
    std::unique_ptr<OrvAlgo::IOrvAlgo> algo(Plugin(req.pluginPath)());
    OrvAlgo::ProgressSignal signal;
    ProgressBridge bridge{algo.get(), progress, {}};
    signal.connect([&bridge](double p, const QString& m, void*) { return bridge(p, m); });
    algo->SetProgressSignal(&signal);
    algo->SetParams(req.record);
    bool ok = false;
    {
        py::gil_scoped_release release;
        ok = algo->Execute();
    }
    if (bridge.pending)
        throw std::move(*bridge.pending);
    int code = 0;
    QString text;
    algo->GetErrorInfo(code, text);
    if (!ok)
        Raise(code, text.isEmpty() ? "the transform failed" : text.toStdString());
    if (req.statsOnly)
        return EigenTuples(algo->GetParams());
    if (const std::string problem = FinishOutput(req); !problem.empty())
        Raise(1, problem);
    return py::str(OutputFile(req));
}

// Keyword options as command-line words: of="ENVI" -> -of ENVI, b=[1, 4] -> -b 1 -b 4, corr=True -> -corr.
std::vector<std::string> Words(const std::string& command, const py::kwargs& options)
{
    std::vector<std::string> args = {command, "-q"};
    for (const auto& [key, value] : options) {
        std::string flag = key.cast<std::string>();
        std::replace(flag.begin(), flag.end(), '_', '-');
        flag = (flag == "plugin" ? "--" : "-") + flag;
        // mask=False is -nomask; srcnodata=[v, ...] repeats -srcnodata, whose values add up.
        if (flag == "-mask") {
            if (py::isinstance<py::bool_>(value) && !value.cast<bool>())
                args.push_back("-nomask");
            continue;
        }
        if (value.is_none() || (py::isinstance<py::bool_>(value) && !value.cast<bool>()))
            continue;
        if (py::isinstance<py::bool_>(value)) {
            args.push_back(flag);
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

py::object Run(const std::string& command, const std::string& input, const py::object& output,
               const py::object& progress, const py::kwargs& options)
{
    std::vector<std::string> args = Words(command, options);
    args.push_back(input);
    if (!output.is_none())
        args.push_back(py::str(output).cast<std::string>());
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

// One run on an array: input and output live in a private /vsimem folder, removed on every path.
py::array RunOnArray(const std::string& command, const py::array& array, const py::kwargs& options)
{
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
    std::vector<std::string> args = Words(command, options);
    args.insert(args.end(), {dir + "/in.tif", dir + "/out.tif"});
    Checked(ParseOptions(args, o));
    o.inputBands = array.ndim() == 3 ? static_cast<int>(array.shape(0)) : 1;
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
    m.attr("__version__") = TAV_VERSION;
    m.def("run", &Run, py::arg("command"), py::arg("input"), py::arg("output") = py::none(),
          py::arg("progress") = py::none(),
          "run(command, input, output=None, progress=None, **options): one tavtransform command.\n"
          "Options are the command line's without the dash (sensor='etm', b=[1, 4], ot='Int16', corr=True).\n"
          "Returns the output path, or for pca with stats_only=True the eigenvalue table as\n"
          "(component, eigenvalue, percent, cumulative percent) tuples. Raises tavtransform.Error\n"
          "(.code, .text) when the run fails; progress(percent, message) returning False cancels.");
    auto helper = [&m](const char* name, const char* command, const char* doc) {
        m.def(name, [command](const py::array& a, const py::kwargs& options) { return RunOnArray(command, a, options); },
              py::arg("array"), doc);
    };
    helper("kt", "kt", "kt(array, sensor='tm'): Tasseled Cap components of a (bands, rows, cols) array.");
    helper("fft", "fft", "fft(array, b=None): centred spectrum, a real and an imaginary band per band.");
    helper("fft_inverse", "fft-inverse", "fft_inverse(array, ot='Float32'): bands from real/imaginary pairs.");
    helper("dwt", "dwt", "dwt(array): one-level wavelet quadrants of every band.");
    helper("dwt_inverse", "dwt-inverse", "dwt_inverse(array): bands rebuilt from wavelet quadrants.");
}
