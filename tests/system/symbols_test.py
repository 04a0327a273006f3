"""What kestrune.so exports, imports and needs, as binutils reads it. KESTRUNE_SANITIZE is set when it is built with a
sanitizer, which adds imports of its own."""

import os
import subprocess
import unittest

from probe_process import built
from run_tests import main

FUNCTIONS = {"plugin_process_desc", "plugin_process_init", "plugin_process_init_queue", "plugin_process_filter",
             "plugin_process_update", "plugin_process_shutdown", "fhf_init", "fhf_destroy", "fhf_clear",
             "fhf_init_iter", "fhf_reinit_iter", "fhf_destroy_iter", "fhf_hash", "fhf_hash_div8", "fhf_hash_40"}
VARIABLES = {"vantor_api_version", "plugin_type", "default_buffer_size", "hc_heavy_size", "local_verbose_level",
             "ks_capture_script", "ks_exp_file_path", "ks_exp_file_path_len", "fhf_lt_free_flag", "fhf_lt_pow_of_two"}
RUNTIME = {"libc.so.6", "libm.so.6", "libgcc_s.so.1", "libstdc++.so.6", "ld-linux-x86-64.so.2",
           "ld-linux-aarch64.so.1"}
SANITIZED = bool(os.environ.get("KESTRUNE_SANITIZE"))


def lines(*command):
    return subprocess.run([*command, built("kestrune.so")], check=True, stdout=subprocess.PIPE,
                          text=True).stdout.splitlines()


class Symbols(unittest.TestCase):
    def test_exactly_the_interface_is_exported(self):
        symbols = [line.split()[1:] for line in lines("nm", "-D", "--defined-only")]
        self.assertEqual({name for kind, name in symbols if kind == "T"}, FUNCTIONS)
        self.assertEqual({name for kind, name in symbols if kind in "DBR"}, VARIABLES)
        self.assertEqual(len(symbols), len(FUNCTIONS) + len(VARIABLES))

    @unittest.skipIf(SANITIZED, "the sanitizers add their own")
    def test_the_host_provides_three_of_them_and_the_runtime_the_rest(self):
        symbols = [line.split() for line in lines("nm", "-D", "--undefined-only")]
        for _, name in symbols:  # nothing of the plugin throws or allocates in a way that throws
            self.assertFalse(name.startswith(("_Zn", "__cxa_throw")), name)
        unversioned = [symbol for symbol in symbols if "@" not in symbol[1]]  # in no library
        self.assertEqual({name for kind, name in unversioned if kind == "U"},
                         {"config_set_values", "verbose_msg", "verbose_level"})
        for kind, name in unversioned:
            if kind != "U":  # weak: markers of the compiler's start files
                self.assertTrue(name.startswith(("__gmon_start__", "_ITM_")), name)

    @unittest.skipIf(SANITIZED, "the sanitizers add their own")
    def test_only_the_runtime_is_needed(self):
        entries = lines("readelf", "--dynamic", "--wide")
        needed = {line.split("[")[1].rstrip("]") for line in entries if "(NEEDED)" in line}
        self.assertIn("libc.so.6", needed)
        self.assertLessEqual(needed, RUNTIME)
        for tag in ("(TEXTREL)", "(RPATH)", "(RUNPATH)"):
            self.assertNotIn(tag, "".join(entries))


if __name__ == "__main__":
    main()
