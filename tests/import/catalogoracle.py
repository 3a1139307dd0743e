#!/usr/bin/python3
"""The catalogue rows every DICOM file under FOLDER should give, read with pydicom alone.

Usage: catalogoracle.py FOLDER < columns.json, where columns.json maps each table to its columns:
{"patient": ["PatientName", ...], ...}. Prints one JSON object:
  "images":      {SOPInstanceUID: [{"file": path, "charset": text, "tables": {table: {column: value}}}]}
                 one entry per file holding that instance (copies in other encodings give several);
  "unreadable":  [[path, reason], ...]   files pydicom cannot read, even forced;
  "unidentified": [[path, reason], ...]  files without SOP, series or study UID, or without PatientID.
Storage rules: an attribute column holds the element's value(s) as text, several values joined by
"\\", text decoded by the file's character set; a UID its first value; binary values and sequences
""; an absent attribute "". InstanceNumber is an integer and SpacingX ... PositionZ the numbers of
PixelSpacing, ImageOrientationPatient and ImagePositionPatient by index (null when absent).
StudyTime and SeriesTime are the time of day as "hh:mm:ss". Status is the fixed "not uploaded"
text, SeriesBase "SeriesInstanceUID#phase", FilePath the path. A key column holds the parent's
identity: series_fk its SeriesBase, study_fk its StudyInstanceUID, patient_fk its PatientID.
"""
import hashlib
import json
import os
import sys
import warnings

try:
    import pydicom
    from pydicom.datadict import dictionary_VR, keyword_dict
    from pydicom.multival import MultiValue
    from pydicom.valuerep import TM
except ImportError:
    print("no pydicom", file=sys.stderr)
    sys.exit(3)

NOT_UPLOADED = "\u672a\u4e0a\u4f20"
COMPONENTS = {"SpacingX": ("PixelSpacing", 0), "SpacingY": ("PixelSpacing", 1)}
for i, axis in enumerate(("XX", "XY", "XZ", "YX", "YY", "YZ")):
    COMPONENTS["Orientation" + axis] = ("ImageOrientationPatient", i)
for i, axis in enumerate("XYZ"):
    COMPONENTS["Position" + axis] = ("ImagePositionPatient", i)
# Column names are keywords with the catalogue's own capitals ("NumberofAverages").
KEYWORDS = {k.lower(): k for k in keyword_dict}
# The private element the served scanners write to tell several acquisitions of one series apart.
PHASE_TAG = (0x5501, 0x111F)


def binary(keyword):
    vrs = dictionary_VR(keyword).split(" or ")
    return any(vr.startswith("O") or vr in ("SQ", "UN") for vr in vrs)


def text(ds, keyword):
    elem = ds.data_element(keyword) if keyword in ds else None
    if elem is None or elem.value is None or binary(keyword) or elem.VR == "SQ":
        return ""
    value = elem.value
    if isinstance(value, (bytes, bytearray)):
        return ""
    values = list(value) if isinstance(value, (list, tuple, MultiValue)) else [value]
    if elem.VR == "UI":
        values = values[:1]
    return "\\".join(str(v) for v in values)


def time_of_day(value):
    if not value.strip():
        return ""
    try:
        return TM(value.strip()).strftime("%H:%M:%S")
    except ValueError:
        return ""


def patient_key(ds):
    # The patient's identity: ID, issuer, birth date and the name without case and trailing
    # separators, as a SHA-1 of the parts joined by the unit separator.
    name = text(ds, "PatientName").strip()
    # The name as written: pydicom drops an empty last component group ("...=").
    original = getattr(ds.get("PatientName"), "original_string", b"") or b""
    if original.rstrip(b" ").endswith(b"=") and not name.endswith("="):
        name += "="
    while name.endswith("^") or name.endswith(" "):
        name = name[:-1]
    parts = [text(ds, "PatientID").strip(), text(ds, "IssuerOfPatientID").strip(),
             text(ds, "PatientBirthDate").strip(), name.casefold()]
    return hashlib.sha1("\x1f".join(parts).encode("utf-8")).hexdigest()


def phase(ds, series_uid):
    parts = series_uid.split(".")
    if len(parts) <= 3 or parts[3] != "30917" or PHASE_TAG not in ds:
        return "0"
    value = ds[PHASE_TAG].value
    if isinstance(value, (bytes, bytearray)):
        raw = value.replace(b"\0", b"").strip()
        value = raw.decode() if raw.lstrip(b"-").isdigit() else int.from_bytes(value, "little", signed=True)
    return str(int(value))


def column(ds, path, name):
    if name in COMPONENTS:
        keyword, index = COMPONENTS[name]
        values = text(ds, keyword).split("\\")
        return float(values[index]) if index < len(values) and values[index].strip() else None
    series_uid = text(ds, "SeriesInstanceUID")
    special = {
        "Status": lambda: NOT_UPLOADED,
        "FilePath": lambda: path,
        "SeriesBase": lambda: series_uid + "#" + phase(ds, series_uid),
        "series_fk": lambda: series_uid + "#" + phase(ds, series_uid),
        "study_fk": lambda: text(ds, "StudyInstanceUID"),
        "patient_fk": lambda: text(ds, "PatientID"),
        "PatientKey": lambda: patient_key(ds),
    }
    if name in special:
        return special[name]()
    keyword = KEYWORDS.get(name.lower())
    if keyword is None:
        return ""
    value = text(ds, keyword)
    if name == "InstanceNumber":
        return int(value) if value.strip() else None
    if name in ("StudyTime", "SeriesTime"):
        return time_of_day(value)
    return value


def read(path):
    try:
        return pydicom.dcmread(path, stop_before_pixels=True), None
    except Exception:
        pass
    try:
        return pydicom.dcmread(path, stop_before_pixels=True, force=True), None
    except Exception as error:
        return None, "%s: %s" % (type(error).__name__, error)


def main():
    root = sys.argv[1]
    tables = json.load(sys.stdin)
    result = {"images": {}, "unreadable": [], "unidentified": []}
    warnings.simplefilter("ignore")
    for folder, dirs, files in os.walk(root):
        dirs.sort()
        for name in sorted(files):
            path = os.path.join(folder, name)
            ds, error = read(path)
            if ds is None:
                result["unreadable"].append([path, error])
                continue
            try:
                missing = [k for k in ("SOPInstanceUID", "SeriesInstanceUID", "StudyInstanceUID", "PatientID")
                           if not text(ds, k).strip()]
                if missing:
                    result["unidentified"].append([path, "no " + ", ".join(missing)])
                    continue
                rows = {t: {c: column(ds, path, c) for c in columns} for t, columns in tables.items()}
            except Exception as error:
                result["unreadable"].append([path, "%s: %s" % (type(error).__name__, error)])
                continue
            sop = text(ds, "SOPInstanceUID")
            charset = text(ds, "SpecificCharacterSet")
            result["images"].setdefault(sop, []).append({"file": path, "charset": charset, "tables": rows})
    json.dump(result, sys.stdout, ensure_ascii=False, sort_keys=True)


if __name__ == "__main__":
    main()
