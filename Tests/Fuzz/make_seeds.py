#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz corpora (Tests/Fuzz/corpus/<Name>/).

Realistic files first, then edge cases and a few hostile ones (deep nesting,
self-referencing or truncated binary property lists, truncated HTTP answers).
Every file stays well below 32 KiB. Rerunning rewrites the seeds named here
and leaves every other file (the regression inputs fuzzing found) alone.
Files named "crash-*" are regression inputs: each failed once.

Usage: python3 Tests/Fuzz/make_seeds.py
"""
import datetime
import json
import os
import plistlib
import struct

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def seed(corpus, name, data):
    folder = os.path.join(ROOT, corpus)
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode()
    assert len(data) < 32 * 1024, (corpus, name, len(data))
    with open(os.path.join(folder, name), "wb") as out:
        out.write(data)


def bplist(objects, top=0):
    """A binary property list of pre-encoded objects (bytes each), object
    references one byte wide, offsets two bytes wide."""
    body = b"bplist00"
    offsets = []
    for encoded in objects:
        offsets.append(len(body))
        body += encoded
    table = len(body)
    body += b"".join(struct.pack(">H", o) for o in offsets)
    return body + struct.pack(">6xBBQQQ", 2, 1, len(objects), top, table)


def dev_config():
    seed("DevConfig", "demo.json", '{\n  "api_fallback_domain": "http://127.0.0.1:8080"\n}\n')
    seed("DevConfig", "all-keys.json", json.dumps({
        "auth_txt_domain": "auth-txt.example.test",
        "api_txt_domain": "api-txt.example.test",
        "auth_fallback_domain": "auth.example.test",
        "api_fallback_domain": "api.example.test:8443",
        "disable_outbound_interface_binding": True,
        "tds_base_link": "https://tds.example.test/",
        "promo_time_till_the_first_show": 3600,
        "promo_time_duration": 86400,
        "config_fetch_urls": ["https://a.example.test/config", "https://b.example.test/config"],
        "config_fetch_timeout_ms": 2500,
        "tm_txt_domain": "tm-txt.example.test",
        "tm_fallback_domain": "tm.example.test/tm",
        "app_force_using_trace_logs": False,
        "show_traffic_limit_reached_on_start": True,
        "show_free_traffic_left_on_start": False,
        "show_too_many_device_connected_on_start": True,
        "force_app_update": False,
        "handler_profiling_enabled": True,
        "ab_tests": {"paywall": "b", "onboarding": 2},
        "force_regional_blocks_promo": True,
    }, indent=2))
    seed("DevConfig", "wrong-types.json", json.dumps({
        "disable_outbound_interface_binding": "yes",
        "config_fetch_timeout_ms": 2.5,
        "config_fetch_urls": ["https://a.example.test", 7, None],
        "api_fallback_domain": ["api.example.test"],
        "auth_txt_domain": None,
        "tm_txt_domain": {"host": "x"},
    }))
    seed("DevConfig", "numbers.json",
         '{"config_fetch_timeout_ms": 18446744073709551615, "promo_time_duration": -9223372036854775808,'
         ' "promo_time_till_the_first_show": 1e400, "tds_base_link": -0.0}')
    seed("DevConfig", "escapes.json",
         '{"api_fallback_domain": "http://\\u0000host/\\ud83d\\ude00", "tm_fallback_domain": "a\\"b\\\\c\\/d",'
         ' "api_fallback_domain": "dup.example.test"}')
    seed("DevConfig", "lone-surrogate.json", '{"auth_txt_domain": "\\ud800"}')
    seed("DevConfig", "bad-utf8.json", b'{"auth_txt_domain": "\xc3\x28\xff"}')
    seed("DevConfig", "bom.json", b'\xef\xbb\xbf{"api_fallback_domain": "bom.example.test"}')
    seed("DevConfig", "empty-object.json", "{}")
    seed("DevConfig", "empty-file.json", "")
    seed("DevConfig", "array.json", '["api_fallback_domain", "x"]')
    seed("DevConfig", "scalar.json", '"api_fallback_domain"')
    seed("DevConfig", "truncated.json", '{"api_fallback_domain": "http://127.0.0.1:80')
    seed("DevConfig", "trailing.json", '{"api_fallback_domain": "a"} {"b": 1}')
    seed("DevConfig", "comment.json", '// developer settings\n{"api_fallback_domain": "a"}')
    seed("DevConfig", "many-urls.json", json.dumps({"config_fetch_urls": ["https://%d.example.test" % i
                                                                          for i in range(400)]}))
    # Hostile: nesting far deeper than any real file.
    seed("DevConfig", "deep-array.json", "[" * 10000 + "]" * 10000)
    seed("DevConfig", "deep-value.json", '{"ab_tests": ' + '{"a":' * 4000 + "1" + "}" * 4000 + "}")
    seed("DevConfig", "deep-unclosed.json", '{"config_fetch_urls": ' + "[" * 20000)


INFO = {
    "CFBundleIdentifier": "com.velmora.mac.vpn",
    "CFBundleName": "Velmora VPN",
    "CFBundleExecutable": "Velmora VPN",
    "CFBundlePackageType": "APPL",
    "CFBundleShortVersionString": "2.11.0",
    "CFBundleVersion": "1143",
    "LSMinimumSystemVersion": "11.0",
    "LSUIElement": True,
    "NSHumanReadableCopyright": "Copyright \u00a9 Velmora",
    "CFBundleURLTypes": [{"CFBundleURLName": "velmora", "CFBundleURLSchemes": ["velmora"]}],
}


def info_plist():
    seed("InfoPlist", "app.xml.plist", plistlib.dumps(INFO, fmt=plistlib.FMT_XML))
    seed("InfoPlist", "app.binary.plist", plistlib.dumps(INFO, fmt=plistlib.FMT_BINARY))
    seed("InfoPlist", "minimal.xml.plist",
         '<?xml version="1.0"?><plist version="1.0"><dict><key>CFBundleIdentifier</key>'
         "<string>com.example.app</string></dict></plist>")
    seed("InfoPlist", "entities.xml.plist",
         '<plist><dict><key>CFBundle&#x49;dentifier</key><string>com.ex&amp;ample&#65;&lt;</string>'
         "</dict></plist>")
    seed("InfoPlist", "cdata.xml.plist",
         "<plist><dict><key>CFBundleIdentifier</key><string><![CDATA[com.example.<cdata>]]></string>"
         "</dict></plist>")
    seed("InfoPlist", "duplicate-key.xml.plist",
         "<plist><dict><key>CFBundleIdentifier</key><string>first</string>"
         "<key>CFBundleIdentifier</key><string>second</string></dict></plist>")
    seed("InfoPlist", "identifier-integer.xml.plist",
         "<plist><dict><key>CFBundleIdentifier</key><integer>42</integer></dict></plist>")
    seed("InfoPlist", "identifier-empty.binary.plist", plistlib.dumps({"CFBundleIdentifier": ""},
                                                                      fmt=plistlib.FMT_BINARY))
    seed("InfoPlist", "identifier-nul.binary.plist", plistlib.dumps({"CFBundleIdentifier": "com.a\0b"},
                                                                    fmt=plistlib.FMT_BINARY))
    seed("InfoPlist", "identifier-unicode.binary.plist",
         plistlib.dumps({"CFBundleIdentifier": "com.v\u00e9lmora.\u0432\u043f\u043d"}, fmt=plistlib.FMT_BINARY))
    seed("InfoPlist", "top-array.xml.plist",
         "<plist><array><string>CFBundleIdentifier</string><string>com.example</string></array></plist>")
    seed("InfoPlist", "truncated.xml.plist", plistlib.dumps(INFO, fmt=plistlib.FMT_XML)[:300])
    seed("InfoPlist", "truncated.binary.plist", plistlib.dumps(INFO, fmt=plistlib.FMT_BINARY)[:-20])
    seed("InfoPlist", "doctype-entity.xml.plist",
         '<?xml version="1.0"?><!DOCTYPE plist [<!ENTITY id "com.entity">]>'
         "<plist><dict><key>CFBundleIdentifier</key><string>&id;</string></dict></plist>")
    # Hostile binary lists: an array holding itself, a dictionary whose key
    # is itself, a count far beyond the file, an offset past the end.
    seed("InfoPlist", "self-array.binary.plist", bplist([b"\xa1\x00"]))
    seed("InfoPlist", "self-key.binary.plist", bplist([b"\xd1\x00\x01", b"\x10\x01"]))
    seed("InfoPlist", "huge-count.binary.plist", bplist([b"\xaf\x13\xff\xff\xff\xff\x00"]))
    seed("InfoPlist", "bad-offset.binary.plist", bplist([b"\x5f\x10\xff" + b"a" * 8]))
    seed("InfoPlist", "deep.xml.plist", "<plist>" + "<array>" * 1500 + "</array>" * 1500 + "</plist>")
    seed("InfoPlist", "deep.binary.plist", deep_binary(3000))


def deep_binary(depth):
    # Object i is an array holding object i + 1; the last one is empty.
    # Two-byte references and offsets.
    body = b"bplist00"
    offsets = []
    for i in range(depth):
        offsets.append(len(body))
        body += b"\xa1" + struct.pack(">H", i + 1) if i + 1 < depth else b"\xa0"
    table = len(body)
    body += b"".join(struct.pack(">H", o) for o in offsets)
    return body + struct.pack(">6xBBQQQ", 2, 2, depth, 0, table)


def user_defaults():
    prefs = {
        "LogLevel": 1,
        "NegativeNumber": -42,
        "LastCheck": datetime.datetime(2024, 3, 1, 12, 30, 15),
        "Ratio": 0.25,
        "Enabled": False,
        "Name": "Velmora VPN",
        "Token": b"\x00\x01\x02\xfe\xff",
        "AppleLanguages": ["de-DE", "en"],
        "Nested": {"Inner": {"List": [1, 2.5, "three", True]}},
    }
    seed("UserDefaults", "prefs.xml.plist", plistlib.dumps(prefs, fmt=plistlib.FMT_XML))
    seed("UserDefaults", "prefs.binary.plist", plistlib.dumps(prefs, fmt=plistlib.FMT_BINARY))
    seed("UserDefaults", "global.binary.plist",
         plistlib.dumps({"AppleLanguages": ["fr-FR", "en-GB"], "AppleLocale": "fr_FR"}, fmt=plistlib.FMT_BINARY))
    seed("UserDefaults", "empty-dict.xml.plist",
         '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0">\n<dict/>\n</plist>\n')
    seed("UserDefaults", "top-string.xml.plist", "<plist><string>not a domain</string></plist>")
    seed("UserDefaults", "extreme-numbers.xml.plist",
         "<plist><dict><key>big</key><integer>18446744073709551615</integer>"
         "<key>min</key><integer>-9223372036854775808</integer><key>tiny</key><real>4.9e-324</real>"
         "<key>huge</key><real>1.7976931348623157e308</real><key>third</key><real>0.1</real></dict></plist>")
    seed("UserDefaults", "nan.xml.plist", "<plist><dict><key>n</key><real>nan</real>"
                                          "<key>i</key><real>-inf</real></dict></plist>")
    seed("UserDefaults", "dates.xml.plist",
         "<plist><array><date>2001-01-01T00:00:00Z</date><date>1901-12-13T20:45:52Z</date>"
         "<date>2038-01-19T03:14:07Z</date><date>1970-01-01T00:00:00Z</date></array></plist>")
    # A date with a fraction of a second, as the binary format keeps it.
    seed("UserDefaults", "fractional-date.binary.plist",
         bplist([b"\xd1\x01\x02", b"\x54date", b"\x33" + struct.pack(">d", 730000000.123456)]))
    seed("UserDefaults", "nul-string.binary.plist", plistlib.dumps({"key": "a\0b"}, fmt=plistlib.FMT_BINARY))
    seed("UserDefaults", "utf16-key.binary.plist",
         plistlib.dumps({"cl\u00e9 \U0001f600": "\u0432\u0430\u043b"}, fmt=plistlib.FMT_BINARY))
    seed("UserDefaults", "uid.binary.plist", bplist([b"\xd1\x01\x02", b"\x53uid", b"\x80\x05"]))
    seed("UserDefaults", "null.binary.plist", bplist([b"\xa1\x01", b"\x00"]))
    seed("UserDefaults", "truncated.binary.plist", plistlib.dumps(prefs, fmt=plistlib.FMT_BINARY)[:80])
    seed("UserDefaults", "self-array.binary.plist", bplist([b"\xa1\x00"]))
    seed("UserDefaults", "deep.xml.plist",
         "<plist><dict><key>k</key>" + "<array>" * 1500 + "</array>" * 1500 + "</dict></plist>")
    seed("UserDefaults", "deep.binary.plist", deep_binary(3000))


SEPARATOR = "\n====\n"

EXTENSIONS = (
    "2 extension(s)\n"
    "--- com.apple.system_extension.network_extension\n"
    "enabled\tactive\tteamID\tbundleID (version)\tname\t[state]\n"
    "*\t*\tABCDE12345\tcom.velmora.mac.vpn.tunnel (2.11.0/1143)\tVelmora VPN Tunnel\t[activated enabled]\n"
    "\t*\tABCDE12345\tcom.velmora.mac.vpn.tunnel (2.10.0/1100)\tVelmora VPN Tunnel\t"
    "[terminated waiting to uninstall on reboot]\n"
)

ROUTES = (
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
    "eth0\t00000000\t0102A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
    "eth0\t0002A8C0\t00000000\t0001\t0\t0\t100\t00FFFFFF\t0\t0\t0\n"
)


def system_info():
    def parts(*items):
        return SEPARATOR.join(items)

    seed("SystemInfo", "x86-vm", parts(EXTENSIONS, "52:54:00:12:34:56\n", "6.1.0-18-amd64", ROUTES,
                                       "VMware-56 4d 9a 1c\n", "Standard PC (Q35 + ICH9, 2009)\n", "x86_64",
                                       "0x1003\n"))
    seed("SystemInfo", "arm-board", parts("", "DC:A6:32:01:02:03", "6.8-rc1", "", "",
                                          "Raspberry Pi 4 Model B Rev 1.4\0", "aarch64", "0x1003"))
    seed("SystemInfo", "no-route", parts("0 extension(s)\n", "00:00:00:00:00:00", "5.10.0-0.deb10.16-amd64",
                                         "Iface\tDestination\tGateway\n", "\xff\xfe serial\n", "", "i686", ""))
    seed("SystemInfo", "route-elsewhere", parts(
        EXTENSIONS.replace("\t*\t", "\t\t"), "aa:bb:cc:dd:ee:ff\n", "4.19.0",
        ROUTES.replace("eth0\t00000000", "wlan0\t00000000") + "eth0\t00000000\t0\t0001\t0\t0\t5\t00000000\n",
        "  \n", "\n", "armv7l", "0x9"))
    seed("SystemInfo", "odd-values", parts(
        "enabled\tactive\nno\ttabs here\n*\t*\t\t\t\t\n\t\t\t\t\t\n", "0x:bb:cc:dd:ee:ff", "6.-1.5",
        ROUTES.replace("100", "99999999999999999999999"), "\0\0\0", "model\0after", "ppc64le", "zz"))
    seed("SystemInfo", "huge-release", parts("", "aa:bb:cc:dd:ee:ff:00", "99999999999999999999.1.2", "", "", "",
                                             "", ""))
    # A signed part: "-0" does not start with a digit, so it and the patch are 0.
    seed("SystemInfo", "crash-release-negative-zero", parts("", "", "6.-0.5"))
    seed("SystemInfo", "empty", "")


def http(status_line, headers=(), body=b""):
    head = status_line + "\r\n" + "".join(h + "\r\n" for h in headers) + "\r\n"
    return head.encode() + body


def backend_response():
    seed("BackendResponse", "ok-json", http("HTTP/1.1 200 OK", ["Content-Type: application/json",
                                                                "Content-Length: 2"], b"{}"))
    seed("BackendResponse", "no-content", http("HTTP/1.1 204 No Content"))
    seed("BackendResponse", "server-error", http("HTTP/1.1 500 Internal Server Error",
                                                 ["Content-Length: 21"], b'{"error":"internal"}\n'))
    seed("BackendResponse", "not-found-close", http("HTTP/1.0 404 Not Found", ["Connection: close"], b"nope"))
    seed("BackendResponse", "chunked", http("HTTP/1.1 200 OK", ["Transfer-Encoding: chunked"],
                                            b"2\r\n{}\r\n0\r\n\r\n"))
    seed("BackendResponse", "chunked-truncated", http("HTTP/1.1 200 OK", ["Transfer-Encoding: chunked"],
                                                      b"ffff\r\n{}"))
    seed("BackendResponse", "chunked-bad-size", http("HTTP/1.1 200 OK", ["Transfer-Encoding: chunked"],
                                                     b"zz\r\n{}\r\n0\r\n\r\n"))
    seed("BackendResponse", "short-body", http("HTTP/1.1 200 OK", ["Content-Length: 100"], b"{}"))
    seed("BackendResponse", "continue-then-ok", http("HTTP/1.1 100 Continue") +
         http("HTTP/1.1 201 Created", ["Content-Length: 0"]))
    seed("BackendResponse", "continue-only", http("HTTP/1.1 100 Continue"))
    seed("BackendResponse", "redirect", http("HTTP/1.1 301 Moved Permanently",
                                             ["Location: http://127.0.0.1:1/elsewhere", "Content-Length: 0"]))
    seed("BackendResponse", "http2-line", http("HTTP/2 200", ["content-length: 0"]))
    seed("BackendResponse", "odd-status", http("HTTP/1.1 999 Whatever", ["Content-Length: 0"]))
    seed("BackendResponse", "negative-length", http("HTTP/1.1 200 OK", ["Content-Length: -1"], b"{}"))
    seed("BackendResponse", "gzip-garbage", http("HTTP/1.1 200 OK", ["Content-Encoding: gzip",
                                                                     "Content-Length: 4"], b"\x1f\x8b\x08\x00"))
    seed("BackendResponse", "long-header", http("HTTP/1.1 200 OK", ["X-Pad: " + "a" * 16000,
                                                                    "Content-Length: 0"]))
    seed("BackendResponse", "header-folding", http("HTTP/1.1 200 OK", ["X-Folded: a", " b", "Content-Length: 0"]))
    seed("BackendResponse", "bare-lf", b"HTTP/1.1 200 OK\nContent-Length: 2\n\n{}")
    seed("BackendResponse", "http09-body", b'{"status":"ok"}')
    seed("BackendResponse", "truncated-status", b"HTTP/1.1 2")
    seed("BackendResponse", "empty", b"")


if __name__ == "__main__":
    dev_config()
    info_plist()
    user_defaults()
    system_info()
    backend_response()
