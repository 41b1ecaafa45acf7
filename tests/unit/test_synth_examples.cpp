// The bundled sample captures are what their scripts make of the bundled
// dictionary, and the library decodes them without a complaint.
#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"
#include "binlog_synth/Capture.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/Script.h"

using namespace binlog_synth;

namespace {

const std::string kExamples = WEXBL_EXAMPLES_DIR;

std::string gunzip(const std::string& path) {
    gzFile in = gzopen(path.c_str(), "rb");
    EXPECT_NE(in, nullptr) << path;
    std::string out;
    if (in == nullptr) {
        return out;
    }
    char buf[65536];
    int n = 0;
    while ((n = gzread(in, buf, sizeof buf)) > 0) {
        out.append(buf, static_cast<std::size_t>(n));
    }
    EXPECT_EQ(gzclose(in), Z_OK);
    return out;
}

class SynthExamples : public ::testing::TestWithParam<const char*> {};

TEST_P(SynthExamples, CaptureMatchesItsScript) {
    const std::string name = GetParam();
    Dictionary dictionary;
    std::string error;
    ASSERT_TRUE(dictionary.load(kExamples + "/dictionary", error)) << error;
    Script script;
    const std::string scriptPath = kExamples + "/captures/" + name + ".synth";
    const std::string text = wexbl_test::readFile(scriptPath);
    ASSERT_FALSE(text.empty()) << scriptPath;
    ASSERT_TRUE(parseScript(text, scriptPath, script, error)) << error;
    EXPECT_TRUE(script.settings.gzip);
    OutputSink sink;
    sink.openMemory();
    CaptureWriter writer(sink, script.settings.framing, script.settings.header);
    ScriptRunner runner(&dictionary);
    ASSERT_TRUE(runner.run(script, writer, error)) << error;
    ASSERT_TRUE(writer.finish());
    ASSERT_TRUE(sink.close(error)) << error;

    const std::string capturePath = kExamples + "/captures/" + name + ".pcap.gz";
    EXPECT_EQ(gunzip(capturePath), sink.memory())
        << capturePath << " is out of date: regenerate it from " << scriptPath
        << " (see examples/captures/README.md)";

    // Every record decodes: one line each, nothing on standard error.
    Tav::BinaryLogXmlReader reader(kExamples + "/dictionary/", false, 5000, 64);
    ASSERT_TRUE(reader.isGood());
    wexbl_test::MemoryStream out;
    wexbl_test::StderrCapture capture;
    reader.readBinaryFiledata(capturePath, 0, out.file());
    EXPECT_EQ(capture.stop(), "");
    const std::string decoded = out.text();
    std::size_t lines = 0;
    for (const char c : decoded) {
        lines += c == '\n' ? 1 : 0;
    }
    // Datagrams to another port are skipped by the decoder.
    std::size_t skipped = 0;
    for (std::size_t at = text.find(" port=5001"); at != std::string::npos;
         at = text.find(" port=5001", at + 1)) {
        ++skipped;
    }
    EXPECT_EQ(lines + skipped, writer.recordsWritten());
    EXPECT_EQ(decoded.find("Mismatch"), std::string::npos);
    EXPECT_EQ(decoded.find("Invalig"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Bundled, SynthExamples, ::testing::Values("link150", "ipv4_port5000"));

}  // namespace
