// The text exposition format as Prometheus reads it: label values and help escaped, numbers
// written exactly, and a histogram's buckets counted up to each bound.
#include <gtest/gtest.h>

#include <cmath>

#include "Exposition.h"

namespace velnor::host {
namespace {

TEST(Exposition, EscapesLabelValuesAsTheFormatAsks) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"settings change", "settings change"},
        {"say \"no\"", "say \\\"no\\\""},
        {"C:\\logs", "C:\\\\logs"},
        {"two\nlines", "two\\nlines"},
        {"tab\tand \xc3\xa9", "tab\tand \xc3\xa9"},  // anything else goes as it is
        {"\\\"\n", "\\\\\\\"\\n"},
        {"", ""},
    };
    for (const auto& [value, escaped] : rows) {
        EXPECT_EQ(escapedLabelValue(value), escaped) << value;
    }
}

TEST(Exposition, WritesNumbersExactly) {
    const std::pair<double, std::string_view> rows[] = {
        {0, "0"},
        {1, "1"},
        {-3, "-3"},
        {1795566412, "1795566412"},
        {0.5, "0.5"},
        {0.1, "0.1"},
        {0.615285313, "0.615285313"},
        {1e300, "1e+300"},
        {NAN, "NaN"},
        {INFINITY, "+Inf"},
        {-INFINITY, "-Inf"},
        // Beyond 2^53 a double no longer counts every integer: its shortest exact form.
        {18446744073709551616.0, "18446744073709551616"},
        {1e22, "1e+22"},
    };
    for (const auto& [number, text] : rows) {
        EXPECT_EQ(numberText(number), text) << number;
    }
}

TEST(Exposition, AFamilyHasItsHelpAndTypeThenItsSamples) {
    std::string out;
    writeFamilyHeader(out, "velnor_service_starts_total", "Starts, by cause\\reason\nnext",
                      MetricType::Counter);
    writeSample(out, "velnor_service_starts_total", {{"cause", "at load"}}, 2);
    writeFamilyHeader(out, "velnor_idle_ticks_total", "Ticks", MetricType::Counter);
    writeSample(out, "velnor_idle_ticks_total", {}, 7);
    writeSample(out, "velnor_operations_total", {{"operation", "x"}, {"outcome", "ok"}}, 1);
    EXPECT_EQ(out,
              "# HELP velnor_service_starts_total Starts, by cause\\\\reason\\nnext\n"
              "# TYPE velnor_service_starts_total counter\n"
              "velnor_service_starts_total{cause=\"at load\"} 2\n"
              "# HELP velnor_idle_ticks_total Ticks\n"
              "# TYPE velnor_idle_ticks_total counter\n"
              "velnor_idle_ticks_total 7\n"
              "velnor_operations_total{operation=\"x\",outcome=\"ok\"} 1\n");
}

TEST(Exposition, AHistogramCountsUpToEachBound) {
    const std::vector<double> bounds{0.25, 0.5, 1};
    HistogramValue histogram(&bounds);
    for (double seconds : {0.125, 0.25, 0.375, 0.75, 2.0, 3.0}) {
        histogram.observe(seconds);
    }
    std::string out;
    writeHistogram(out, "velnor_operation_duration_seconds", {{"operation", "start"}}, histogram);
    // A value on a bound counts in that bound's bucket (le: less than or equal).
    EXPECT_EQ(out,
              "velnor_operation_duration_seconds_bucket{operation=\"start\",le=\"0.25\"} 2\n"
              "velnor_operation_duration_seconds_bucket{operation=\"start\",le=\"0.5\"} 3\n"
              "velnor_operation_duration_seconds_bucket{operation=\"start\",le=\"1\"} 4\n"
              "velnor_operation_duration_seconds_bucket{operation=\"start\",le=\"+Inf\"} 6\n"
              "velnor_operation_duration_seconds_sum{operation=\"start\"} 6.5\n"
              "velnor_operation_duration_seconds_count{operation=\"start\"} 6\n");
}

}  // namespace
}  // namespace velnor::host
