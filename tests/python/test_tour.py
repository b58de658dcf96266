"""The guided tour that `make demo` runs: it must run to the end, agree with
numpy where it prints both, and write its figures."""
import os
import re
import subprocess
import sys

import pytest

TOUR = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "tour.py")


def test_tour_runs_and_agrees_with_numpy(tmp_path):
    pytest.importorskip("matplotlib")
    run = subprocess.run([sys.executable, TOUR, "--out", str(tmp_path)], capture_output=True, text=True,
                         timeout=300)
    assert run.returncode == 0, run.stderr
    out = run.stdout
    survey = re.search(r"KIXSurvey: (.*)\nnumpy    : (.*)\n", out)
    assert survey and survey.group(1) == survey.group(2)
    median = re.search(r"KIXMedian (\S+)\s+numpy.median (\S+)", out)
    assert median and float(median.group(1)) == float(median.group(2))
    assert "largest difference 0\n" in out
    assert "ScriptError('Data type should be Complex.') from kix::vml::vml_expr2DM" in out
    assert "ScriptError('Data type should be Binary, Integer or Real.') from kix::vml::vml_expr1DM" in out
    tie = re.search(r"relative error of the recovered phase (\S+)", out)
    assert tie and float(tie.group(1)) < 0.01
    shift = re.search(r"recovered shift \((\S+), (\S+)\)", out)
    assert shift and abs(float(shift.group(1)) - 3.3) < 0.15 and abs(float(shift.group(2)) + 1.7) < 0.15
    # Real files are opened by the host with their calibration, and a saved TIFF keeps it.
    if os.path.exists("/usr/lib/python3/dist-packages/hyperspy/tests/io/dm3_2D_data/test_diffraction_pattern.dm3"):
        assert re.search(r"    x: [0-9.]+ 1/nm per pixel", out), out
        assert "same pixels True, calibration Axis(" in out
    assert re.search(r"KIXMedianFilterDLL \(5 x 5\) [0-9.]+ in", out)
    spikes = re.search(r"(\d+) cosmic-ray channels injected, (\d+) channels replaced, (\d+) of the injected", out)
    assert spikes and int(spikes.group(3)) > 0.9 * int(spikes.group(1))
    assert "rings at radius [40, 70]" in out
    for name in ("diffraction.png", "median_stack.png", "tie_phase.png", "power_spectrum.png", "geometry.png",
                 "eels.png", "filters.png", "spikes.png", "radial.png"):
        with open(tmp_path / name, "rb") as f:
            assert f.read(8) == b"\x89PNG\r\n\x1a\n"
