/* The table's lookups compiled as C (result_codes_c.c). */
#ifndef ZOR_TEST_RESULT_CODES_C_H
#define ZOR_TEST_RESULT_CODES_C_H

#ifdef __cplusplus
extern "C" {
#endif

const char *zor_c_result_name(int code);
const char *zor_c_result_meaning(int code);

#ifdef __cplusplus
}
#endif

#endif
