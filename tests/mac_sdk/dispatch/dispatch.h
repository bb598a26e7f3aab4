// libdispatch, as the macOS sources use it.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct dispatch_queue_s *dispatch_queue_t;
typedef struct dispatch_queue_attr_s *dispatch_queue_attr_t;
typedef void (^dispatch_block_t)(void);

#define DISPATCH_QUEUE_SERIAL ((dispatch_queue_attr_t)0)

dispatch_queue_t dispatch_queue_create(const char *label, dispatch_queue_attr_t attr);
dispatch_queue_t dispatch_get_main_queue(void);
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);
void dispatch_sync(dispatch_queue_t queue, dispatch_block_t block);

#ifdef __cplusplus
}
#endif
