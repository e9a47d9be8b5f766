#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Reads every thread's time_in_state once; returns how many it read. */
long thread_floor_read_all(void);

#ifdef __cplusplus
}
#endif
