// summary.json of align-batch: it parses, keeps the record's values, writes numbers that are
// not finite as null, reports the deformation only after a non-linear stage, and a failed write
// leaves the earlier file.
#define JSON_NOEXCEPTION
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "batch_summary.h"
#include "test_support.h"

namespace {

batch_record sample_record()
{
    static batch_record r;
    memset(&r, 0, sizeof r);
    snprintf(r.version, sizeof r.version, "9.8.7");
    snprintf(r.individual, sizeof r.individual, "/data/ind.nii");
    snprintf(r.template_name, sizeof r.template_name, "/data/tpl.nii");
    snprintf(r.search, sizeof r.search, "accurate");
    for (int j = 0; j < 12; j++) r.parameters[j] = (float)j - 0.5f;
    r.orientation = {0, 0, 1};
    r.similarity_before = 0.5f;
    r.similarity_affine = 1.25f;
    r.similarity_final = 1.25f;
    r.nlevels = 2;
    snprintf(r.level[0].stage, sizeof r.level[0].stage, "affine");
    snprintf(r.level[0].kernel, sizeof r.level[0].kernel, "fast");
    r.level[0].dim = {45, 54, 45};
    r.level[0].similarity = NAN;
    r.level[0].steps = 7;
    snprintf(r.level[1].stage, sizeof r.level[1].stage, "affine");
    r.level[1].similarity = 1.25f;
    snprintf(r.outputs[0], sizeof r.outputs[0], "/out/align.com");
    return r;
}

nlohmann::json read_json(const char *name)
{
    return nlohmann::json::parse(read_text_file(name), nullptr, false);
}

}  // namespace

TEST(WriteBatchSummary, ParsesWithTheRecordsValuesAndNullForNotANumber)
{
    ScopedTempDir dir;
    batch_record r = sample_record();
    ASSERT_EQ(write_batch_summary("summary.json", &r), 0);
    nlohmann::json j = read_json("summary.json");
    ASSERT_FALSE(j.is_discarded());
    EXPECT_EQ(j["program"], "align-batch");
    EXPECT_EQ(j["version"], "9.8.7");
    EXPECT_EQ(j["search"], "accurate");
    EXPECT_EQ(j["parameters"]["translations_mm"][2], 1.5);
    EXPECT_EQ(j["parameters"]["skews"][0], 8.5);
    EXPECT_EQ(j["parameters"]["orientation_quarter_turns"][2], 1);
    EXPECT_TRUE(j["levels"][0]["mutual_information"].is_null());
    EXPECT_EQ(j["levels"][0]["grid"][1], 54);
    EXPECT_EQ(j["levels"][1]["mutual_information"], 1.25);
    EXPECT_EQ(j["similarity"]["before"], 0.5);
    EXPECT_FALSE(j.contains("deformation"));  // no non-linear stage
    EXPECT_EQ(j["outputs"]["align.com"], "/out/align.com");
    EXPECT_FALSE(j["outputs"].contains("qc.png"));
}

TEST(WriteBatchSummary, ReportsTheDeformationAfterANonlinearStage)
{
    ScopedTempDir dir;
    batch_record r = sample_record();
    r.nonlinear = 1;
    r.folded_voxels = 3;
    r.jacobian_min = -0.5f;
    r.jacobian_max = 2.0f;
    ASSERT_EQ(write_batch_summary("summary.json", &r), 0);
    nlohmann::json j = read_json("summary.json");
    EXPECT_EQ(j["deformation"]["folded_voxels"], 3);
    EXPECT_EQ(j["deformation"]["jacobian_min"], -0.5);
}

TEST(WriteBatchSummary, AFailedWriteKeepsTheEarlierFile)
{
    ScopedTempDir dir;
    batch_record r = sample_record();
    write_text_file("summary.json", "earlier\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_batch_summary("missing-directory/summary.json", &r), 1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("missing-directory/summary.json"), std::string::npos);
    EXPECT_EQ(read_text_file("summary.json"), "earlier\n");
}
