/* Output streams of the conversion runtime.
 *
 * A host that wants the text handed to it rather than written to a file
 * creates a stream around its own write callback (or around a FILE*) and
 * passes it to GetTextStreamWithErrCallback. The filter writes every piece
 * of converted text through VTQ_WriteStream. */
#ifndef VTQ_STREAM_H
#define VTQ_STREAM_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VTQ_RT_API __attribute__((visibility("default")))

typedef struct VTQ_STREAM VTQ_STREAM;

/* Called with each piece of output. Answers how many bytes it took; any
 * answer below len makes VTQ_WriteStream report a failure (-1). */
typedef long (*VTQ_StreamWriteFn)(void *user, const void *data, long len);

/* A stream that hands every write to fn(user, …). Null when out of memory. */
VTQ_RT_API VTQ_STREAM *VTQ_StreamCreate(VTQ_StreamWriteFn fn, void *user);

/* A stream that writes to fp (not closed by VTQ_StreamDestroy). */
VTQ_RT_API VTQ_STREAM *VTQ_StreamCreateFile(FILE *fp);

/* A stream that collects every write into one growing buffer of its own,
 * so a host needs no callback per write. Null when out of memory. */
VTQ_RT_API VTQ_STREAM *VTQ_StreamCreateBuffer(void);

/* The bytes a buffer stream has collected so far (owned by the stream,
 * valid until the next write or destroy), their count in *length. Null
 * with *length 0 before the first byte and for a stream of another kind. */
VTQ_RT_API const void *VTQ_StreamBufferData(VTQ_STREAM *stream, size_t *length);

VTQ_RT_API void VTQ_StreamDestroy(VTQ_STREAM *stream);

/* Writes len bytes; answers len, or -1 when the callback took fewer. */
VTQ_RT_API long VTQ_WriteStream(VTQ_STREAM *stream, long len, const void *buf);

#ifdef __cplusplus
}
#endif

#endif
