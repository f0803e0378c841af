/* What a C program does with the codec: writes a message into a buffer of its own and reads it back. */
#include <QELNetworkKit/cmp.h>

#include <string.h>

int cmpUsedFromC(void);

typedef struct {
  uint8_t bytes[64];
  size_t written;
  size_t taken;
} Buffer;

static bool take(cmp_context *ctx, void *data, size_t limit) {
  Buffer *buffer = ctx->buf;
  if (limit > buffer->written - buffer->taken) return false;
  memcpy(data, buffer->bytes + buffer->taken, limit);
  buffer->taken += limit;
  return true;
}

static size_t put(cmp_context *ctx, const void *data, size_t count) {
  Buffer *buffer = ctx->buf;
  if (count > sizeof buffer->bytes - buffer->written) return 0;
  memcpy(buffer->bytes + buffer->written, data, count);
  buffer->written += count;
  return count;
}

/* 0, or the line of the first expectation that failed. */
#define EXPECT(condition) \
  if (!(condition)) return __LINE__

int cmpUsedFromC(void) {
  Buffer buffer = {{0}, 0, 0};
  cmp_context ctx;
  cmp_object object;
  uint32_t size = 0;
  char text[8];
  double number = 0;
  int32_t small = 0;

  cmp_init(&ctx, &buffer, take, put);
  EXPECT(cmp_write_map(&ctx, 2) && cmp_write_str(&ctx, "gain", 4) && cmp_write_double(&ctx, -1.5));
  EXPECT(cmp_write_str(&ctx, "bus", 3) && cmp_write_sint(&ctx, -40));

  EXPECT(cmp_read_map(&ctx, &size) && size == 2);
  size = sizeof text;
  EXPECT(cmp_read_str(&ctx, text, &size) && strcmp(text, "gain") == 0);
  EXPECT(cmp_read_double(&ctx, &number) && number == -1.5);
  EXPECT(cmp_read_object(&ctx, &object) && object.type == CMP_TYPE_FIXSTR && object.as.size == 3);
  EXPECT(take(&ctx, text, object.as.size) && memcmp(text, "bus", 3) == 0);
  EXPECT(cmp_read_int(&ctx, &small) && small == -40);
  EXPECT(!cmp_read_nil(&ctx) && ctx.error == CMP_ERROR_READING_MARKER);
  EXPECT(strcmp(cmp_strerror(&ctx), "Error reading type marker") == 0);
  return 0;
}
