/*
 * KroLibEnhancement: the C interface of the float super-resolution engine.
 *
 * Five frames of one scene, slightly shifted against each other, give one
 * frame of twice the width and height. A context holds one engine (corner
 * registration, window of 5 frames, magnification 2, reference index 3,
 * total-variation weight 400, registration error 0.0001, relative residue
 * 0.007). Typical use:
 *
 *     int ctx = SuperResolution_init(width, height);
 *     for each frame:
 *         int code = SuperResolution_addImage(ctx, frame);   // width*height floats
 *         if (code == 0)                                     // from the 5th frame on
 *             SuperResolution_getSuperresolutionImage(ctx, out);  // 4*width*height floats
 *     SuperResolution_release(ctx);
 *
 * Return codes:
 *      0    success
 *     -2    a frame had defective pixels that could not be repaired
 *     -3    a frame had half or more of its pixels unusable after registration
 *           (the result is still computed)
 *     -4    the image has too little structure (range below 2.0); it was still added
 *     -5    fewer than 5 images added so far
 *     -9    the registration found no corner to track (e.g. flat frames)
 *     -999  invalid context, bad argument, or an error inside the engine;
 *           SuperResolution_getErrorMessage tells which
 *
 * Threads: the functions take no locks. The context table, the last error
 * text and the log are shared by the whole process, so calls on any
 * contexts must be serialised by the caller.
 *
 * Logging: when the environment variable KROLIB_LOG_FILE names a file at
 * the time of SuperResolution_init, every call is logged to that file.
 *
 * WARNING for C callers: SuperResolution_init, SuperResolution_setReferenceFrame
 * and SuperResolution_setCameraAndLensType do not catch errors of the
 * engine. A C++ exception leaving them terminates a C program. Pass sizes of
 * at least 1x1 to init, a reference index of 0 to 4 to setReferenceFrame,
 * and a handle returned by init (not yet released) to setCameraAndLensType.
 */
#ifndef KROLIB_SUPERRESOLUTION_C_ADAPTER_H
#define KROLIB_SUPERRESOLUTION_C_ADAPTER_H

#include "KroLibExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creates a context for frames of width x height pixels and returns its
 * handle (>= 0): the lowest free slot of the context table. Also (re)reads
 * KROLIB_LOG_FILE. Engine errors are not caught (see the warning above). */
KROLIB_EXPORT int SuperResolution_init(int width, int height);

/* Destroys the context's engine and frees its slot for reuse.
 * Returns 0, or -999 for an invalid handle. */
KROLIB_EXPORT int SuperResolution_release(int handle);

/* Copies the text of the last failure into buffer, like strncpy: at most
 * size bytes, with no terminating zero when the text is size bytes or
 * longer, padded with zeros when shorter. A NULL buffer or size 0 copies
 * nothing. Returns 0. */
KROLIB_EXPORT int SuperResolution_getErrorMessage(char* buffer, unsigned int size);

/* Writes the output size (2 * width, 2 * height) through outWidth and
 * outHeight. With fewer than 5 images added it also runs a reconstruction
 * from the images there are (so that a caller can force one) and returns -5;
 * otherwise returns 0. -999 for an invalid handle (nothing written) or an
 * engine error (the size is still written). */
KROLIB_EXPORT int SuperResolution_queryOutputImageSize(int handle, int* outWidth, int* outHeight);

/* Adds one frame: height rows of width floats, row after row, no gaps.
 * From the fifth image on, each call also computes a new super-resolved
 * image. Returns 0, -2, -3, -4, -9 (see the codes above) or -999. */
KROLIB_EXPORT int SuperResolution_addImage(int handle, const float* image);

/* Copies the last super-resolved image (2*height rows of 2*width floats,
 * that is 16 * width * height bytes) into mosaic. The copy is made in every
 * case, so mosaic must never be NULL. Returns 0, -5 with fewer than 5 images
 * (the copy then holds whatever the last reconstruction left), or -999. */
KROLIB_EXPORT int SuperResolution_getSuperresolutionImage(int handle, float* mosaic);

/* Chooses the sensor blur from a free-form camera and lens description such
 * as "camera k57 FOV 25": a model key k41, k43, k44, k52, k53, k54, k57 or
 * k61 and the field of view after "FOV" in degrees. A description that
 * cannot be decoded selects the default sigma 0.683 (the Gaussian sigma of
 * the sensor blur in output pixels, half an input pixel each). Returns 0. The handle
 * is not checked: it must be a live handle from init. */
KROLIB_EXPORT int SuperResolution_setCameraAndLensType(int handle, const char* description);

/* Selects the reference frame, counted back from the newest (0 = newest,
 * default 3). Returns 0, or -999 for an invalid handle. An index outside
 * 0..4 is not caught (see the warning above). */
KROLIB_EXPORT int SuperResolution_setReferenceFrame(int handle, int index);

#ifdef __cplusplus
}
#endif

#endif /* KROLIB_SUPERRESOLUTION_C_ADAPTER_H */
