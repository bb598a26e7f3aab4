#pragma once
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct zor_field_layout {
    const char *name;
    size_t offset;
    size_t size;
};

const struct zor_field_layout *zor_c_field_layouts(size_t *count);
const struct zor_field_layout *zor_c_record_sizes(size_t *count);

#ifdef __cplusplus
}
#endif
