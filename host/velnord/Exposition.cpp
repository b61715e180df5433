#include "Exposition.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace velnor::host {

HistogramValue::HistogramValue(const std::vector<double>* bounds)
    : bounds_(bounds), counts_(bounds->size() + 1, 0) {}

void HistogramValue::observe(double value) {
    const auto bucket = std::lower_bound(bounds_->begin(), bounds_->end(), value);
    ++counts_[static_cast<std::size_t>(bucket - bounds_->begin())];
    sum_ += value;
    ++count_;
}

std::string escapedLabelValue(std::string_view value) {
    std::string escaped;
    escaped.reserve(value.size());
    for (char byte : value) {
        if (byte == '\\' || byte == '"') {
            escaped += '\\';
            escaped += byte;
        } else if (byte == '\n') {
            escaped += "\\n";
        } else {
            escaped += byte;
        }
    }
    return escaped;
}

std::string numberText(double value) {
    if (std::isnan(value)) {
        return "NaN";
    }
    if (std::isinf(value)) {
        return value > 0 ? "+Inf" : "-Inf";
    }
    char text[32];
    // A count up to 2^53 is exact as a double, and is written as the integer it is.
    const bool whole = std::trunc(value) == value && std::fabs(value) < 9007199254740992.0;
    const auto written =
        whole ? std::to_chars(text, text + sizeof text, static_cast<std::int64_t>(value))
              : std::to_chars(text, text + sizeof text, value);
    return std::string(text, written.ptr);
}

void writeFamilyHeader(std::string& out, std::string_view name, std::string_view help,
                       MetricType type) {
    out.append("# HELP ").append(name).append(" ");
    // Help text escapes a backslash and a line feed; a quote stays as it is.
    for (char byte : help) {
        out.append(byte == '\\' ? "\\\\" : byte == '\n' ? "\\n" : std::string_view(&byte, 1));
    }
    out.append("\n# TYPE ")
        .append(name)
        .append(type == MetricType::Counter ? " counter\n"
                : type == MetricType::Gauge ? " gauge\n"
                                            : " histogram\n");
}

namespace {

void writeLabels(std::string& out, const MetricLabels& labels, std::string_view bound) {
    if (labels.empty() && bound.empty()) {
        return;
    }
    out += '{';
    bool first = true;
    for (const auto& [name, value] : labels) {
        out.append(first ? "" : ",").append(name).append("=\"").append(escapedLabelValue(value));
        out += '"';
        first = false;
    }
    if (!bound.empty()) {
        out.append(first ? "" : ",").append("le=\"").append(bound).append("\"");
    }
    out += '}';
}

void writeLine(std::string& out, std::string_view name, std::string_view suffix,
               const MetricLabels& labels, std::string_view bound, double value) {
    out.append(name).append(suffix);
    writeLabels(out, labels, bound);
    out.append(" ").append(numberText(value)).append("\n");
}

}  // namespace

void writeSample(std::string& out, std::string_view name, const MetricLabels& labels,
                 double value) {
    writeLine(out, name, "", labels, "", value);
}

void writeHistogram(std::string& out, std::string_view name, const MetricLabels& labels,
                    const HistogramValue& histogram) {
    std::uint64_t upTo = 0;
    for (std::size_t index = 0; index < histogram.bounds().size(); ++index) {
        upTo += histogram.counts()[index];
        writeLine(out, name, "_bucket", labels, numberText(histogram.bounds()[index]),
                  static_cast<double>(upTo));
    }
    writeLine(out, name, "_bucket", labels, "+Inf", static_cast<double>(histogram.count()));
    writeLine(out, name, "_sum", labels, "", histogram.sum());
    writeLine(out, name, "_count", labels, "", static_cast<double>(histogram.count()));
}

}  // namespace velnor::host
