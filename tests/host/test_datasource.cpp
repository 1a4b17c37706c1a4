#include "OrvDataSource/DatasetFactory.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using namespace OrvDataSource;
using OrvUtility::_ptr_t;
using tavtest::TempDir;

namespace {

struct TypeCase {
    PixelDataType type;
    GDALDataType gdal;
    int size;
};

const TypeCase kTypes[] = {
    {PDT_Byte, GDT_Byte, 1},     {PDT_UInt16, GDT_UInt16, 2}, {PDT_Int16, GDT_Int16, 2},
    {PDT_UInt32, GDT_UInt32, 4}, {PDT_Int32, GDT_Int32, 4},   {PDT_Float32, GDT_Float32, 4},
    {PDT_Float64, GDT_Float64, 8},
};

// A value every type holds exactly: small, non-negative, distinct per band and pixel.
double Exact(int band, int x, int y) { return band * 40 + y * 7 + x; }

// One pixel stored as, and read back from, GDAL's type: the values are exact in every type.
void Put(void* p, GDALDataType type, double v) { GDALCopyWords(&v, GDT_Float64, 0, p, type, 0, 1); }
double Get(const void* p, GDALDataType type)
{
    double v = 0;
    GDALCopyWords(p, type, 0, &v, GDT_Float64, 0, 1);
    return v;
}

class PixelTypeRoundTrip : public ::testing::TestWithParam<TypeCase> {};

// Both buffer layouts must land every pixel in its band and place; all three reads must agree.
TEST_P(PixelTypeRoundTrip, InterleavedAndSequentialWindowsReadBackThroughEveryRead)
{
    const TypeCase tc = GetParam();
    TempDir dir;
    const int W = 7, H = 5, B = 3, wx = 2, wy = 1, ww = 4, wh = 3;
    auto* factory = DatasetFactory::Instance();
    for (bool interleaved : {true, false}) {
        const QString path = dir.qfile(interleaved ? "pix.tif" : "seq.tif");
        {
            _ptr_t<RasterDataset> ds = factory->CreateRasterDataset(path, W, H, B, tc.type, "GTiff", nullptr);
            ASSERT_TRUE(ds);
            std::vector<std::byte> buf(static_cast<size_t>(ww) * wh * B * tc.size);
            const long long pixel = interleaved ? B * tc.size : tc.size;
            const long long line = pixel * ww;
            const long long band = interleaved ? tc.size : line * wh;
            for (int b = 0; b < B; ++b)
                for (int y = 0; y < wh; ++y)
                    for (int x = 0; x < ww; ++x)
                        Put(buf.data() + b * band + y * line + x * pixel, tc.gdal, Exact(b, x + wx, y + wy));
            const int bands[] = {1, 2, 3};
            ds->WriteRaster(wx, wy, ww, wh, buf.data(), ww, wh, tc.type, B, bands, pixel, line, band);
        }
        _ptr_t<RasterDataset> ds = factory->OpenRasterDataset(path, OM_Read);
        ASSERT_TRUE(ds);
        EXPECT_EQ(ds->GetRasterBand(0)->GetRasterDataType(), tc.type);

        // ReadRasterInto, converted to Float64, bands 3 and 1 in that order.
        std::vector<double> into(static_cast<size_t>(ww) * wh * 2);
        const int order[] = {3, 1};
        ASSERT_TRUE(ds->ReadRasterInto(wx, wy, ww, wh, into.data(), ww, wh, PDT_Float64, 2, order, 0, 0, 0));
        // ReadRaster in the band's own type.
        _ptr_t<PixelBuffer> own = ds->ReadRaster(wx, wy, ww, wh, ww, wh, {2});
        ASSERT_TRUE(own);
        EXPECT_EQ(own->GetDataType(), tc.type);
        // ReadBlock of band 1 into an Int32 buffer with a padded line.
        std::vector<int32_t> block(static_cast<size_t>(ww + 1) * wh, -1);
        ASSERT_TRUE(ds->GetRasterBand(0)->ReadBlock(wx, wy, ww, wh, block.data(), ww, wh, PDT_Int32, 4, 4 * (ww + 1)));

        for (int y = 0; y < wh; ++y)
            for (int x = 0; x < ww; ++x) {
                const size_t i = static_cast<size_t>(y) * ww + x;
                EXPECT_EQ(into[i], Exact(2, x + wx, y + wy));
                EXPECT_EQ(into[ww * wh + i], Exact(0, x + wx, y + wy));
                EXPECT_EQ(Get(static_cast<std::byte*>(own->GetData()) + i * tc.size, tc.gdal), Exact(1, x + wx, y + wy));
                EXPECT_EQ(block[y * (ww + 1) + x], Exact(0, x + wx, y + wy));
            }
        // Outside the window the raster stayed at its initial 0.
        const auto full = tavtest::ReadBand(path.toStdString(), 1);
        EXPECT_EQ(full[0], 0.0);
        EXPECT_EQ(block[ww], -1) << "line padding must not be written";
    }
}

INSTANTIATE_TEST_SUITE_P(AllPixelTypes, PixelTypeRoundTrip, ::testing::ValuesIn(kTypes),
                         [](const auto& info) { return std::string(GDALGetDataTypeName(info.param.gdal)); });

// GDAL rounds to nearest and clips to the target range when a buffer is converted on write.
TEST(PixelConversion, WritesRoundAndClipLikeGdal)
{
    TempDir dir;
    struct Case { PixelDataType type; double in; double out; };
    const Case cases[] = {
        {PDT_Byte, 1.4, 1}, {PDT_Byte, 1.6, 2}, {PDT_Byte, 300, 255}, {PDT_Byte, -5, 0},
        {PDT_Int16, 40000, 32767}, {PDT_Int16, -40000, -32768}, {PDT_UInt16, -3.7, 0},
        {PDT_Int32, -2.6, -3}, {PDT_Float32, 0.1, static_cast<float>(0.1)},
    };
    int i = 0;
    for (const Case& c : cases) {
        const QString path = dir.qfile(std::to_string(i++) + ".tif");
        {
            auto ds = DatasetFactory::Instance()->CreateRasterDataset(path, 1, 1, 1, c.type, "GTiff", nullptr);
            ASSERT_TRUE(ds);
            double v = c.in;
            ds->GetRasterBand(0)->WriteBlock(0, 0, 1, 1, &v, 1, 1, PDT_Float64, 0, 0);
        }
        EXPECT_EQ(tavtest::ReadBand(path.toStdString(), 1)[0], c.out) << "input " << c.in;
    }
}

TEST(Metadata, NoDataSpatialReferenceAndGeoTransformSurviveAReopen)
{
    TempDir dir;
    const std::string src = dir.file("src.tif");
    tavtest::RasterShape shape;
    shape.noData = {-9999};
    tavtest::WriteRaster(src, shape, [](int, int x, int) { return x; });
    auto* factory = DatasetFactory::Instance();
    _ptr_t<RasterDataset> in = factory->OpenRasterDataset(QString::fromStdString(src), OM_Read);
    ASSERT_TRUE(in);
    double nd = 0;
    EXPECT_TRUE(in->GetRasterBand(0)->GetNoDataValue(&nd));
    EXPECT_EQ(nd, -9999);
    {
        _ptr_t<RasterDataset> out = factory->CreateRasterDataset(dir.qfile("out.tif"), 4, 3, 2, PDT_Float32, "GTiff", nullptr);
        ASSERT_TRUE(out);
        double none = 1;
        EXPECT_FALSE(out->GetRasterBand(1)->GetNoDataValue(&none));
        EXPECT_EQ(none, 1) << "an absent value leaves the output alone";
        out->GetRasterBand(1)->SetNoDataValue(nd);
        out->SetSpatialReference(in->GetSpatialReference());
        double gt[6];
        in->GetGeoTransform(gt);
        out->SetGeoTransform(gt);
    }
    const auto info = tavtest::Info(dir.file("out.tif"));
    // GTiff keeps one no-data value for all bands, so only the band that set it is checked.
    EXPECT_EQ(info.noData[1], std::make_pair(true, -9999.0));
    EXPECT_NE(info.wkt.find("SIRGAS 2000 / UTM zone 25S"), std::string::npos);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(info.gt[i], tavtest::kTestGeoTransform[i]);

    tavtest::WriteRaster(dir.file("bare.tif"), tavtest::Shape(4, 3, 1, GDT_Float32, false), [](int, int, int) { return 0; });
    EXPECT_FALSE(factory->OpenRasterDataset(dir.qfile("bare.tif"), OM_Read)->GetSpatialReference());
}

const char* kRpb =
    "satId = \"QB02\";\nbandId = \"P\";\nSpecId = \"RPC00B\";\nBEGIN_GROUP = IMAGE\n"
    "\terrBias = 1.0;\n\terrRand = 0.0;\n\tlineOffset = 100;\n\tsampOffset = 200;\n"
    "\tlatOffset = -8.0;\n\tlongOffset = -34.9;\n\theightOffset = 10;\n\tlineScale = 100;\n"
    "\tsampScale = 200;\n\tlatScale = 0.1;\n\tlongScale = 0.1;\n\theightScale = 100;\n"
    "\tlineNumCoef = (\n0, 1, 0, 0, 0, 0, 0, 0, 0, 0,\n0, 0, 0, 0, 0, 0, 0, 0, 0, 0);\n"
    "\tlineDenCoef = (\n1, 0, 0, 0, 0, 0, 0, 0, 0, 0,\n0, 0, 0, 0, 0, 0, 0, 0, 0, 0);\n"
    "\tsampNumCoef = (\n0, 0, 1, 0, 0, 0, 0, 0, 0, 0,\n0, 0, 0, 0, 0, 0, 0, 0, 0, 0);\n"
    "\tsampDenCoef = (\n1, 0, 0, 0, 0, 0, 0, 0, 0, 0,\n0, 0, 0, 0, 0, 0, 0, 0, 0, 0);\n"
    "END_GROUP = IMAGE\nEND;\n";

TEST(Metadata, RpcDomainAndSideFileAreCopied)
{
    TempDir dir;
    tavtest::WriteRaster(dir.file("scene.tif"), tavtest::Shape(4, 3, 1, GDT_Float32, false), [](int, int, int) { return 1; });
    tavtest::WriteText(dir.file("scene.RPB"), kRpb);
    tavtest::WriteText(dir.file("copy.RPB"), "stale"); // an earlier run's side file is replaced
    auto* factory = DatasetFactory::Instance();
    {
        auto in = factory->OpenRasterDataset(dir.qfile("scene.tif"), OM_Read);
        ASSERT_TRUE(in->GetMetadata("RPC")) << "GDAL reads the side file as the RPC domain";
        auto out = factory->CreateRasterDataset(dir.qfile("copy.tif"), 4, 3, 1, PDT_Float32, "GTiff", nullptr);
        EXPECT_FALSE(out->GetMetadata("RPC"));
        EXPECT_TRUE(DatasetFactory::CopyRPCFile(in.get(), out.get()));
    }
    EXPECT_EQ(tavtest::ReadFile(dir.file("copy.RPB")), kRpb);
    auto back = factory->OpenRasterDataset(dir.qfile("copy.tif"), OM_Read);
    char** rpc = back->GetMetadata("RPC");
    ASSERT_TRUE(rpc);
    EXPECT_STREQ(CSLFetchNameValue(rpc, "LINE_OFF"), "100");
}

// PNG can only be written by copying; the host hides that behind an ordinary create.
TEST(CopyOnlyFormats, PngOutputIsWrittenThroughATemporaryGTiff)
{
    TempDir dir;
    const QString png = dir.qfile("out.png");
    {
        auto ds = DatasetFactory::Instance()->CreateRasterDataset(png, 5, 2, 1, PDT_Byte, "PNG", nullptr);
        ASSERT_TRUE(ds);
        std::vector<uint8_t> px = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
        const int band = 1;
        ds->WriteRaster(0, 0, 5, 2, px.data(), 5, 2, PDT_Byte, 1, &band, 0, 0, 0);
    }
    const auto back = tavtest::ReadBand(png.toStdString(), 1);
    EXPECT_EQ(back, (std::vector<double>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_FALSE(tavtest::Exists(png.toStdString() + ".tmp.tif"));
    EXPECT_EQ(tavtest::Info(png.toStdString()).type, GDT_Byte);
    // A copy that fails at the end is a recorded failure, and nothing is left under the name.
    ClearGdalError();
    DatasetFactory::Instance()->CreateRasterDataset(dir.qfile("five.png"), 5, 2, 5, PDT_Byte, "PNG", nullptr);
    ASSERT_EQ(RecordedFailures().size(), 1);
    EXPECT_TRUE(RecordedFailures()[0].startsWith("copying to PNG " + dir.qfile("five.png") + " failed: PNG driver"));
    EXPECT_FALSE(tavtest::Exists(dir.file("five.png")));
    EXPECT_FALSE(tavtest::Exists(dir.file("five.png.tmp.tif")));
}

TEST(OpenFailures, MissingAndNonRasterFilesGiveNullWithGdalMessageAndNoOutput)
{
    TempDir dir;
    tavtest::WriteText(dir.file("notes.txt"), "not a raster at all\n");
    tavtest::WriteText(dir.file("points.csv"), "x,y\n1,2\n");
    auto* factory = DatasetFactory::Instance();
    for (const std::string name : {"missing.tif", "notes.txt", "points.csv"}) {
        ClearGdalError();
        ::testing::internal::CaptureStderr();
        const QString path = dir.qfile(name);
        _ptr_t<RasterDataset> asRaster = OrvUtility::dynamic_ptr_cast<RasterDataset>(
            factory->OpenDataset(path, OM_Read, QString()));
        _ptr_t<RasterDataset> direct = factory->OpenRasterDataset(path, OM_Read);
        const std::string printed = ::testing::internal::GetCapturedStderr();
        EXPECT_FALSE(asRaster) << name;
        EXPECT_FALSE(direct) << name;
        EXPECT_EQ(printed, "") << name;
        EXPECT_FALSE(LastGdalError().strMessage.isEmpty()) << name;
    }
}

TEST(ReadFailures, TruncatedFileYieldsZeroFilledBufferNotNull)
{
    TempDir dir;
    tavtest::WriteRaster(dir.file("t.tif"), tavtest::Shape(256, 256, 1, GDT_UInt16), [](int, int x, int y) { return 1 + x + y; });
    std::filesystem::resize_file(dir.file("t.tif"), 4096);
    auto ds = DatasetFactory::Instance()->OpenRasterDataset(dir.qfile("t.tif"), OM_Read);
    ASSERT_TRUE(ds);
    ClearGdalError();
    _ptr_t<PixelBuffer> buf = ds->ReadRaster(0, 200, 256, 1, 256, 1, {1});
    ASSERT_TRUE(buf);
    ASSERT_EQ(buf->GetByteCount(), 512u);
    const auto* px = static_cast<const uint16_t*>(buf->GetData());
    EXPECT_TRUE(std::all_of(px, px + 256, [](uint16_t v) { return v == 0; }));
    EXPECT_FALSE(LastGdalError().strMessage.isEmpty());
    ASSERT_FALSE(RecordedFailures().isEmpty());
    EXPECT_TRUE(RecordedFailures()[0].startsWith("reading " + dir.qfile("t.tif") + " failed: ")) << "the failure is kept";
}

// One buffer for bands of several types comes in the first listed band's type.
TEST(ReadRaster, TakesTheTypeOfTheFirstListedBand)
{
    TempDir dir;
    tavtest::WriteRaster(dir.file("byte.tif"), tavtest::Shape(3, 2, 1, GDT_Byte), [](int, int x, int) { return x; });
    tavtest::WriteRaster(dir.file("wide.tif"), tavtest::Shape(3, 2, 1, GDT_Int16), [](int, int x, int) { return -x; });
    ASSERT_EQ(std::system(("cd '" + dir.path().string() + "' && gdalbuildvrt -q -separate mixed.vrt byte.tif wide.tif").c_str()), 0);
    auto ds = DatasetFactory::Instance()->OpenRasterDataset(dir.qfile("mixed.vrt"), OM_Read);
    ASSERT_TRUE(ds);
    EXPECT_EQ(ds->ReadRaster(0, 0, 3, 1, 3, 1, {1, 2})->GetDataType(), PDT_Byte);
    EXPECT_EQ(ds->ReadRaster(0, 0, 3, 1, 3, 1, {2, 1})->GetDataType(), PDT_Int16);
}

TEST(Create, RefusalsGiveNullAndAnEnvelopeGivesTheGeoTransform)
{
    TempDir dir;
    auto* factory = DatasetFactory::Instance();
    EXPECT_FALSE(factory->CreateRasterDataset(dir.qfile("a.tif"), 2, 2, 1, PDT_Byte, "NoSuchFormat", nullptr));
    EXPECT_FALSE(factory->CreateRasterDataset(dir.qfile("nofolder/a.tif"), 2, 2, 1, PDT_Byte, "GTiff", nullptr));
    EXPECT_FALSE(factory->CreateRasterDataset(dir.qfile("b.tif"), 2, 2, 1, PDT_Unknown, "GTiff", nullptr));
    // MEM would take a raster without bands; no run asks for one on purpose.
    EXPECT_FALSE(factory->CreateRasterDataset(dir.qfile("c"), 2, 2, 0, PDT_Byte, "MEM", nullptr));
    for (const char* format : {"NoSuchFormat", "ESRI Shapefile"})
        EXPECT_FALSE(factory->CanWriteRaster(format)) << format;
    for (const char* format : {"GTiff", "PNG"})
        EXPECT_TRUE(factory->CanWriteRaster(format)) << format << " (PNG by copy)";
    // The envelope form sets a north-up geo-transform.
    _ptr_t<OrvGeometry::Envelope> env(new OrvGeometry::Envelope(100, 50, 200, 100));
    ASSERT_TRUE(factory->CreateRasterDataset(dir.qfile("e.tif"), env, 10, 5, 1, PDT_Byte, "GTiff", nullptr)); // closed here
    const auto info = tavtest::Info(dir.file("e.tif"));
    EXPECT_EQ(std::vector<double>(info.gt, info.gt + 6), (std::vector<double>{100, 10, 0, 100, 0, -10}));
}

} // namespace
