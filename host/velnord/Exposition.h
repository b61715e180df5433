// The text exposition format, version 0.0.4, that Prometheus scrapes: each family's HELP and
// TYPE lines, then its samples, one "name{label="value",...} number" a line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velnor::host {

enum class MetricType { Counter, Gauge, Histogram };

using MetricLabels = std::vector<std::pair<std::string_view, std::string_view>>;

// Observations counted into buckets by their upper bounds, with their sum and count.
class HistogramValue {
  public:
    explicit HistogramValue(const std::vector<double>* bounds);
    void observe(double value);

    const std::vector<double>& bounds() const { return *bounds_; }
    // How many observations fell at or below each bound and above the one before it; the last
    // entry counts those above every bound.
    const std::vector<std::uint64_t>& counts() const { return counts_; }
    double sum() const { return sum_; }
    std::uint64_t count() const { return count_; }

  private:
    const std::vector<double>* bounds_;
    std::vector<std::uint64_t> counts_;
    double sum_ = 0;
    std::uint64_t count_ = 0;
};

// A label value as the format carries it: a backslash, a double quote and a line feed escaped
// as \\, \" and \n; every other byte as it is.
std::string escapedLabelValue(std::string_view value);

// A number as the format writes it: integers without a fraction, others in their shortest
// exact form, and NaN, +Inf and -Inf by those names.
std::string numberText(double value);

// Appends the family's HELP line (its text escaped as the format asks) and TYPE line.
void writeFamilyHeader(std::string& out, std::string_view name, std::string_view help,
                       MetricType type);

// Appends one sample: name, its labels when there are any, its value.
void writeSample(std::string& out, std::string_view name, const MetricLabels& labels, double value);

// Appends a histogram's samples: NAME_bucket for each bound, counted up to it and labelled
// with le, then le="+Inf", NAME_sum and NAME_count.
void writeHistogram(std::string& out, std::string_view name, const MetricLabels& labels,
                    const HistogramValue& histogram);

}  // namespace velnor::host
