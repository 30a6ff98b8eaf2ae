#pragma once
// Plots as inline SVG text for the HTML report: horizontal bar charts and
// line charts over histogram bins. Plain markup with fixed sizes: no script,
// no fonts or styles from elsewhere, so a page that holds them opens from a
// file anywhere. Every bar and line carries its figures as a tooltip.

#include <string>
#include <vector>

namespace Vorpa {

// A chart of one row per label and one panel per measure (reads, bases),
// the panels side by side and sharing the labels.
struct BarPanel {
    std::string title;               // above the panel, e.g. "reads"
    std::vector<double> values;      // one per label
    std::vector<std::string> texts;  // printed after each bar (formatted values)
};

struct BarChart {
    std::vector<std::string> labels;
    std::vector<BarPanel> panels;
    std::vector<bool> muted;  // per label: drawn grey (unclassified); may be empty
};

// One line of a line chart: y per x of the chart.
struct LineSeries {
    std::string name;
    std::vector<double> y;
    bool muted = false;  // drawn grey and dashed (unclassified)
};

struct LineChart {
    std::vector<double> x;  // increasing
    bool log_x = false;     // positions by log10(x); x must be positive
    std::string x_title;
    std::string y_title;
    std::vector<LineSeries> series;
};

std::string BarChartSvg(const BarChart& chart);
std::string LineChartSvg(const LineChart& chart);

// Colour of the i-th of many series: hues spread by the golden angle, so
// neighbours differ however many there are.
std::string SeriesColour(size_t index);

// text with &, <, >, " and ' escaped for XML and HTML.
std::string XmlEscape(const std::string& text);

// Round numbers for an axis from 0 (or low) to at least high: 1, 2 or 5 times
// a power of ten apart, about `count` of them.
std::vector<double> AxisTicks(double low, double high, int count);

}  // namespace Vorpa
