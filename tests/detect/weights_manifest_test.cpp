// The networks' weights manifest parser on small manifests: exact offsets for what it
// accepts, one line naming the fault for what it refuses.
#ifdef MSMFACE_HAVE_DESCRIPTOR
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "detect/descriptor/weights_manifest.h"

namespace {

using msmface::detail::decodeWeights;
using msmface::detail::parseWeightsManifest;

// Two tensors: a quantised 2x3 and a float 2; 6 + 8 bytes.
const char* const kSmall = R"([{"paths":["w.bin"],"weights":[
  {"name":"a","shape":[2,3],"dtype":"float32","quantization":{"dtype":"uint8","scale":0.5,"min":-1}},
  {"name":"b","shape":[2],"dtype":"float32"}]}])";

TEST(WeightsManifest, GivesEachTensorItsPlaceAndDecodesItsValues) {
    const auto m = parseWeightsManifest(kSmall);
    ASSERT_TRUE(m.ok()) << m.message();
    ASSERT_EQ(m->files, std::vector<std::string>{"w.bin"});
    ASSERT_EQ(m->tensors.size(), 2u);
    EXPECT_EQ(m->tensors[0].shape, (std::vector<int>{2, 3}));
    EXPECT_TRUE(m->tensors[0].quantised);
    EXPECT_EQ(m->tensors[0].offset, 0u);
    EXPECT_EQ(m->tensors[1].offset, 6u);
    EXPECT_FALSE(m->tensors[1].quantised);
    EXPECT_EQ(m->totalBytes, 14u);

    unsigned char bin[14] = {0, 1, 2, 3, 4, 255};
    const float floats[2] = {1.25f, -3.5f};
    std::memcpy(bin + 6, floats, 8);
    const auto values = decodeWeights(*m, bin, sizeof bin);
    ASSERT_TRUE(values.ok()) << values.message();
    EXPECT_EQ((*values)[0], (std::vector<float>{-1, -0.5f, 0, 0.5f, 1, 126.5f}));
    EXPECT_EQ((*values)[1], (std::vector<float>{1.25f, -3.5f}));

    // One byte short or long, or a value that is no number: refused with the reason.
    for (std::size_t size : {std::size_t{13}, std::size_t{15}, std::size_t{0}}) {
        unsigned char longer[15] = {};
        const auto r = decodeWeights(*m, longer, size);
        ASSERT_FALSE(r.ok()) << size;
        EXPECT_NE(r.message().find("expected 14"), std::string::npos) << r.message();
    }
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::memcpy(bin + 10, &nan, 4);
    const auto r = decodeWeights(*m, bin, sizeof bin);
    ASSERT_FALSE(r.ok());
    EXPECT_NE(r.message().find("tensor b"), std::string::npos) << r.message();
}

// The detectors' graph constants: scalars (no dimension) and integers stored as uint8 codes take
// one byte per value and decode like any quantised tensor.
TEST(WeightsManifest, ScalarsAndQuantisedIntegersTakeOneBytePerValue) {
    const auto m = parseWeightsManifest(R"([{"paths":["w"],"weights":[
  {"name":"s","shape":[],"dtype":"float32","quantization":{"dtype":"uint8","scale":1,"min":0.5}},
  {"name":"i","shape":[3],"dtype":"int32","quantization":{"dtype":"uint8","scale":1,"min":-1}},
  {"name":"f","shape":[],"dtype":"float32"}]}])");
    ASSERT_TRUE(m.ok()) << m.message();
    ASSERT_EQ(m->tensors.size(), 3u);
    EXPECT_TRUE(m->tensors[0].shape.empty());
    EXPECT_EQ(m->tensors[0].values, 1u);
    EXPECT_EQ(m->tensors[1].offset, 1u);
    EXPECT_EQ(m->tensors[2].offset, 4u);
    EXPECT_EQ(m->totalBytes, 8u);
    unsigned char bin[8] = {2, 0, 1, 7};
    const float f = 2.5f;
    std::memcpy(bin + 4, &f, 4);
    const auto values = decodeWeights(*m, bin, sizeof bin);
    ASSERT_TRUE(values.ok()) << values.message();
    EXPECT_EQ((*values)[0], std::vector<float>{2.5f});
    EXPECT_EQ((*values)[1], (std::vector<float>{-1, 0, 6}));
    EXPECT_EQ((*values)[2], std::vector<float>{2.5f});
}

TEST(WeightsManifest, RefusesWhatTheLoaderCannotUseWithOneLine) {
    const std::pair<const char*, const char*> bad[] = {
        {"", "not JSON"},
        {"[", "not JSON"},
        {"{}", "one weight group"},
        {"[]", "one weight group"},
        {R"([{"paths":["w.bin"],"weights":[]}])", "non-empty"},
        {R"([{"paths":["../w.bin"],"weights":[{"name":"a","shape":[1],"dtype":"float32"}]}])",
         "plain file name"},
        {R"([{"paths":[],"weights":[{"name":"a","shape":[1],"dtype":"float32"}]}])", "paths"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1],"dtype":"int32"}]}])", "float32"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1],"dtype":"float16"}]}])", "float32"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1,1,1,1,1],"dtype":"float32"}]}])",
         "0 to 4 dimensions"},
        {R"([{"paths":["w"],"weights":[{"name":"a\nb","shape":[1],"dtype":"float32"}]}])",
         "printable"},
        {R"([{"paths":["w\n"],"weights":[{"name":"a","shape":[1],"dtype":"float32"}]}])",
         "plain file name"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[0],"dtype":"float32"}]}])",
         "dimension"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1.5],"dtype":"float32"}]}])",
         "dimension"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[65536,65536],"dtype":"float32"}]}])",
         "values"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1],"dtype":"float32"},)"
         R"({"name":"a","shape":[1],"dtype":"float32"}]}])",
         "twice"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1],"dtype":"float32",)"
         R"("quantization":{"dtype":"uint16","scale":1,"min":0}}]}])",
         "uint8"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1],"dtype":"float32",)"
         R"("quantization":{"dtype":"uint8","scale":"1","min":0}}]}])",
         "scale"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1],"dtype":"float32",)"
         R"("quantization":{"dtype":"uint8","scale":1e999,"min":0}}]}])",
         "malformed number"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1],"dtype":"float32",)"
         R"("quantization":{"dtype":"uint8","scale":1,"min":-1e300}}]}])",
         "beyond single precision"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[NaN],"dtype":"float32"}]}])",
         "not JSON"},
        {R"([{"paths":["w"],"weights":[{"name":"a","shape":[1],"dtype":"float32"}]}] x)",
         "after the end"},
    };
    for (const auto& [json, reason] : bad) {
        const auto m = parseWeightsManifest(json);
        ASSERT_FALSE(m.ok()) << json;
        EXPECT_EQ(m.status().kind(), msmface::ErrorKind::File);
        EXPECT_NE(m.message().find(reason), std::string::npos) << json << ": " << m.message();
        EXPECT_EQ(m.message().find('\n'), std::string::npos) << m.message();
    }
    // Nesting that would recurse without end stops at a fixed depth.
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    const auto m = parseWeightsManifest(deep);
    ASSERT_FALSE(m.ok());
    EXPECT_NE(m.message().find("too deep"), std::string::npos) << m.message();
}

}  // namespace
#endif
