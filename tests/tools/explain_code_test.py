"""tallowin explain: every code of the catalogue, in each form in which people meet it."""

import json
import unittest

from toolcase import ROOT, ToolCase

CATALOGUE = json.loads((ROOT / "catalogue" / "errors.json").read_text())


class ExplainCode(ToolCase):
    def explain(self, code):
        """The explanations of `code`; people must get the same texts."""
        codes = self.succeed("explain", code, "--json").json()["codes"]
        people = self.succeed("explain", code).out
        for row in codes:
            for member in ("code", "name", "label", "text", "meaning", "retry", "money", "action"):
                self.assertIn(row[member], people)
            for member in ("name", "meaning", "retry", "money", "action"):
                self.assertTrue(row[member], row)
        return codes

    def test_takes_every_form_of_a_number(self):
        for form in ("0x8004020D", "0X8004020d", "8004020d", "-2147220979", "2147746317", "KVX_E_NOT_FOUND", "kvx_e_not_found"):
            with self.subTest(form=form):
                row, = self.explain(form)
                self.assertEqual((row["code"], row["number"], row["name"], row["text"]),
                                 ("0x8004020D", -2147220979, "KVX_E_NOT_FOUND", "requested item was not found"))

    def test_knows_every_constant(self):
        rows = [row for group in CATALOGUE["groups"] for row in group["codes"] if "name" in row]
        self.assertGreater(len(rows), 30)
        for expected in rows:
            with self.subTest(name=expected["name"]):
                row, = self.explain(expected["name"])
                self.assertEqual((row["meaning"], row["action"]), (expected["meaning"], expected["action"]))
                self.assertEqual(row["text"], expected.get("text") or "")

    def test_knows_numbers_inside_families(self):
        for code, name, label in (("0x80042193", "KVX_E_HTTP_FAMILY", "Forbidden"),
                                  ("0x800421A2", "KVX_E_HTTP_FAMILY", "HTTP status 418"),
                                  ("0x80043020", "KVX_E_SOCKET_FAMILY", "EPIPE"),
                                  ("0x80043063", "KVX_E_SOCKET_FAMILY", "error number 99"),
                                  ("0x8004480A", "KVX_E_TLS_FAMILY", "certificate expired"),
                                  ("0x80044134", "KVX_E_TLS_FAMILY", "cookie mismatch"),
                                  ("0x80044817", "KVX_E_TLS_FAMILY", "certificate revoked"),
                                  ("Certificate Expired", "KVX_E_TLS_FAMILY", "certificate expired"),
                                  ("KVX_E_TLS_FAMILY", "KVX_E_TLS_FAMILY", "")):
            with self.subTest(code=code):
                row, = self.explain(code)
                self.assertEqual((row["name"], row["label"]), (name, label))

    def test_knows_the_system_s_numbers(self):
        for form, number, name in (("13", 13, "EACCES"), ("0xd", 13, "EACCES"), ("EROFS", 30, "EROFS"), ("18", 18, "EXDEV"),
                                   ("exdev", 18, "EXDEV")):
            with self.subTest(form=form):
                row, = self.explain(form)
                self.assertEqual((row["number"], row["name"]), (number, name))
        self.assertEqual([row["code"] for row in self.explain("ENOMEM")], ["0x8004300C", "12"])

    def test_refuses_what_is_no_code(self):
        for text in ("99999", "4000", "0x80040299", "-1", "4294967296", "99999999999999999999", "0x", "0x8004020G", "--", "-",
                     "KVX_E_", "KVX_E_NOT_FOUND ", "\x1b[31m", "\udcff"):
            with self.subTest(text=text):
                arguments = ("explain", "--", text)
                run = self.fail_with(1, "there is no result code ", *arguments)
                self.assertNotIn("\x1b", run.errors)
                failed = self.tool("explain", "--json", "--", text)
                self.assertEqual((failed.status, failed.json()["ok"]), (1, False))
        for arguments in ((), ("",), ("1", "2")):
            self.fail_with(2, "--help", "explain", *arguments)


if __name__ == "__main__":
    unittest.main()
