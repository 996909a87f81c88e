/* SPDX-License-Identifier: Apache-2.0 */
/* Stand-in vendor library; each build answers its own PROBE_VALUE. */
__attribute__((visibility("default"))) int TalvoProbeValue(void);

int TalvoProbeValue(void)
{
    return PROBE_VALUE;
}
