#pragma once

// The quality comparison's chart: PSNR against milliseconds per output frame
// (logarithmic), one marker per method and sensor size, drawn with OpenCV
// and written as PNG.

#include <string>
#include <vector>

struct ChartPoint {
    int series = 0;     // method: selects the colour and the legend entry
    int marker = 0;     // sensor size: 0 circle, 1 square, 2 triangle, 3 diamond
    std::string label;  // written next to the marker
    double ms = 0.0;    // x, > 0
    double psnr = 0.0;  // y
};

// Draws the points into a PNG at `path`. `seriesNames` and `markerNames`
// make the legends. Throws std::runtime_error when the file cannot be
// written or no point has a positive, finite time.
void drawQualityChart(const std::vector<ChartPoint>& points, const std::vector<std::string>& seriesNames,
                      const std::vector<std::string>& markerNames, const std::string& title,
                      const std::string& subtitle, const std::string& path);
