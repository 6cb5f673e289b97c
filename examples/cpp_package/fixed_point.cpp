// Super-resolves a recording with the fixed-point engine: 16-bit frames in,
// 16-bit frames of twice the width and height out, integer arithmetic
// throughout (as the camera's hardware would compute it).
//
//   fixed_point WIDTH HEIGHT frames.u16 out.s16
//
// frames.u16 holds unsigned 16-bit little-endian frames one after another;
// they are saturated to the engine's signed range. out.s16 receives every
// enlarged frame as signed 16-bit little-endian samples; each frame's status
// and solver iterations are printed.
#include <cstdlib>
#include <fstream>
#include <iostream>

#include <krolib/Exception.h>
#include <krolib/SrInt.h>

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::cerr << "usage: " << argv[0] << " WIDTH HEIGHT FRAMES.u16 OUT.s16\n";
        return 2;
    }
    const int width = std::atoi(argv[1]);
    const int height = std::atoi(argv[2]);
    std::ifstream in(argv[3], std::ios::binary);
    std::ofstream out(argv[4], std::ios::binary);
    if (!in || !out || width <= 0 || height <= 0) {
        std::cerr << "cannot read " << argv[3] << " as " << width << "x" << height << " frames or write "
                  << argv[4] << "\n";
        return 1;
    }
    try {
        velmor::kro::SrIntOptions options;  // window 5, the newest frame as reference, TV weight 400
        velmor::kro::SrInt<velmor::kro::SrIntRegistration, velmor::kro::SrIntMinimization> engine(width, height,
                                                                                                  options);
        cv::Mat_<unsigned short> raw(height, width);
        cv::Mat_<short> frame, result;
        int outputs = 0;
        while (in.read(reinterpret_cast<char*>(raw.data), static_cast<std::streamsize>(raw.total() * 2))) {
            raw.convertTo(frame, CV_16S);  // saturates above 32767
            if (engine.addFrame(frame) == -8)
                engine.addFrame(frame);  // the grey-value range widened: a new window starts here
            if (engine.getFrameCount() < options.windowSize)
                continue;
            const int status = engine.computeSr(result);  // 0, or -3/-6: a warning, the result is written
            std::cout << "frame " << outputs++ << ": status " << status << ", " << engine.getCumIters()
                      << " iterations\n";
            out.write(reinterpret_cast<const char*>(result.data), static_cast<std::streamsize>(result.total() * 2));
        }
        std::cout << outputs << " frames of " << result.cols << "x" << result.rows << " written\n";
        return outputs > 0 && out ? 0 : 1;
    } catch (const velmor::kro::Exception& e) {
        std::cerr << "error: " << e.what() << " (" << e.where() << ")\n";
    } catch (const char* refused) {
        std::cerr << "refused: " << refused << "\n";
    }
    return 1;
}
