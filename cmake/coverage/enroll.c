/* SPDX-License-Identifier: Apache-2.0 */
// In every library whose lines are counted: its counters are its own, and so is what writes them.
void __gcov_dump(void);
void utils_coverage_enroll(void (*dump)(void));

__attribute__((constructor)) static void enroll(void) {
    utils_coverage_enroll(__gcov_dump);
}
