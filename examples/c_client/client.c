/*
 * Super-resolves a raw float sequence through the C interface.
 *
 *   cc client.c $(pkg-config --cflags --libs krolib-enhancement) -o client
 *   ./client 160 128 frames.f32 result.f32
 *
 * frames.f32 holds frames of WIDTH x HEIGHT 32-bit floats (little-endian,
 * row after row, frames one after the other). From the fifth frame on, each
 * frame gives one image of (2*WIDTH) x (2*HEIGHT) floats; all of them are
 * written to result.f32 one after the other.
 */
#include <stdio.h>
#include <stdlib.h>

#include <krolib/SuperResolutionCAdapter.h>

static void report(const char* what, int code)
{
    char text[256];
    SuperResolution_getErrorMessage(text, sizeof(text));
    text[sizeof(text) - 1] = '\0';
    fprintf(stderr, "%s: code %d (%s)\n", what, code, text);
}

int main(int argc, char** argv)
{
    if (argc != 5) {
        fprintf(stderr, "usage: %s WIDTH HEIGHT INPUT.f32 OUTPUT.f32\n", argv[0]);
        return 2;
    }
    const int width = atoi(argv[1]);
    const int height = atoi(argv[2]);
    if (width < 16 || height < 16) {
        fprintf(stderr, "width and height must be at least 16\n");
        return 2;
    }
    FILE* in = fopen(argv[3], "rb");
    if (!in) {
        perror(argv[3]);
        return 1;
    }
    FILE* out = fopen(argv[4], "wb");
    if (!out) {
        perror(argv[4]);
        fclose(in);
        return 1;
    }

    const size_t frameSize = (size_t)width * (size_t)height;
    float* frame = malloc(frameSize * sizeof(float));
    int handle = SuperResolution_init(width, height);
    int outWidth = 0, outHeight = 0;
    SuperResolution_queryOutputImageSize(handle, &outWidth, &outHeight);
    float* result = malloc((size_t)outWidth * (size_t)outHeight * sizeof(float));

    int frames = 0, written = 0, status = 0;
    while (fread(frame, sizeof(float), frameSize, in) == frameSize) {
        const int code = SuperResolution_addImage(handle, frame);
        ++frames;
        if (code == -999) {
            report("addImage", code);
            status = 1;
            break;
        }
        if (code != 0)
            report("addImage", code);  /* -4, -3, ...: a warning, the frame counts */
        if (frames >= 5) {
            SuperResolution_getSuperresolutionImage(handle, result);
            fwrite(result, sizeof(float), (size_t)outWidth * (size_t)outHeight, out);
            ++written;
        }
    }
    SuperResolution_release(handle);
    free(result);
    free(frame);
    fclose(in);
    if (fclose(out) != 0)
        status = 1;
    printf("%d frames in, %d images of %dx%d out\n", frames, written, outWidth, outHeight);
    return status;
}
