// Super-resolves a recording from a moving camera with the local-motion
// engine: every frame is aligned by dense optical flow and only samples that
// agree with the reference frame are used.
//
//   moving_camera WIDTH HEIGHT frames.u16 out.pfm
//
// frames.u16 holds 16-bit little-endian frames one after another; out.pfm
// receives every enlarged frame (twice the width and height) as a stream of
// portable float maps, and each frame's rejected share is printed.
#include <cstdlib>
#include <fstream>
#include <iostream>

#include <krolib/Exception.h>
#include <krolib/ImageIO.h>
#include <krolib/SrRobust.h>

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::cerr << "usage: " << argv[0] << " WIDTH HEIGHT FRAMES.u16 OUT.pfm\n";
        return 2;
    }
    const int width = std::atoi(argv[1]);
    const int height = std::atoi(argv[2]);
    std::ifstream in(argv[3], std::ios::binary);
    if (!in || width <= 0 || height <= 0) {
        std::cerr << "cannot read " << argv[3] << " as " << width << "x" << height << " frames\n";
        return 1;
    }
    try {
        velmor::kro::SrRobustOptions options;  // window 5, reference index 3
        velmor::kro::SrRobust engine(width, height, options);
        cv::Mat_<unsigned short> frame(height, width);
        cv::Mat_<float> result;
        velmor::kro::SrRobustReport report;
        int outputs = 0;
        bool first = true;
        while (in.read(reinterpret_cast<char*>(frame.data), static_cast<std::streamsize>(frame.total() * 2))) {
            engine.addFrame(frame);
            if (engine.getFrameCount() < options.windowSize)
                continue;
            engine.computeSR(result, &report);
            std::cout << "frame " << outputs++ << ": " << static_cast<int>(100 * report.rejectedFraction + 0.5)
                      << " % of the other frames' samples rejected, "
                      << static_cast<int>(100 * report.fallbackFraction + 0.5) << " % from the reference alone\n";
            const int flags = first ? 0 : velmor::kro::ImageIO::kSaveAppend;
            if (!velmor::kro::ImageIO::save(argv[4], result, flags))
                return 1;
            first = false;
        }
        std::cout << outputs << " frames of " << result.cols << "x" << result.rows << " written\n";
        return outputs > 0 ? 0 : 1;
    } catch (const velmor::kro::Exception& e) {
        std::cerr << "error: " << e.what() << " (" << e.where() << ")\n";
    }
    return 1;
}
