"""What the journal of a virtual machine says is drawn as what a virtual product says."""

import json
import subprocess
import tempfile
import time
import unittest
from pathlib import Path
from runpy import run_path
from unittest import mock

SIMULATOR = Path(__file__).resolve().parents[3] / "simulator"
DRAWS = """const [simulator, out] = process.argv.slice(1);
    const logic = fs.readFileSync(simulator + "/timeline/run.js", "utf8");
    const {Run, sentence} = new Function(logic + "; return {Run, sentence}")();
    const journal = fs.readFileSync(out + "/journal.jsonl", "utf8").trim().split("\\n");
    const run = new Run(journal.map(JSON.parse));
    console.log(sentence(run, {bucket: 9, peaks: []}));
    console.log(run.lanes.service.map(({state}) => state).join());"""
WHERE = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj [BluetoothManager.cpp:1] void f():"
STARTS = ["systemd Starting bluetoothmanager.service - Bluetooth audio supervisor...",
          f"service 4 {WHERE} startStartupSequence requested",
          f"service 4 {WHERE} agent started and wait registration",
          "systemd Started bluetoothmanager.service - Bluetooth audio supervisor."]
PLAYS = [f"service 4 {WHERE} try to start pulseaudio for /org/bluez/hci0/dev_00_AA_01_00_00_42",
         "watch.service 2026-11-26 02:54:24.384  ConnectAudioDevice"]
ENDS = [("Deactivated successfully.", "the service ended with status 0", "off,starting,on"),
        ("Failed with result 'exit-code'.", "service ended with an error", "off,starting,on,failed")]


class Machines(unittest.TestCase):
    def test_road(self):
        for ending, said, states in ENDS:
            with self.subTest(ending), tempfile.TemporaryDirectory() as folder:
                self.journal = Path(folder, "unit.jsonl").open("w", buffering=1)
                phone = mock.Mock(address="00:AA:01:00:00:42")
                pair = run_path(str(SIMULATOR / "machines/play"))["Pair"](
                    mock.Mock(), phone, Path(folder), time.time())
                self.say(*STARTS)
                pair.tell("phone anna connect")
                self.say(*PLAYS)
                self.assertEqual(pair.await_line("@ Conn*")["line"], "@ ConnectAudioDevice")
                pair.tell("phone anna play")
                phone.play.assert_called_once_with()
                self.say("other 4 is no line of it", f"systemd bluetoothmanager.service: {ending}")
                pair.await_line(". service ended*")
                drawn = subprocess.run(["node", "-e", DRAWS, SIMULATOR, folder], check=True,
                                       stdout=subprocess.PIPE, text=True).stdout.splitlines()
                self.assertRegex(drawn[0], f"^The phone anna played from .*; {said}")
                self.assertEqual(drawn[1], states)

    def say(self, *lines):
        for line in lines:
            unit, text = line.split(" ", 1)
            print(json.dumps({"__REALTIME_TIMESTAMP": str(round(time.time() * 1e6)),
                              "_SYSTEMD_UNIT": unit, "MESSAGE": text}), file=self.journal)


if __name__ == "__main__":
    unittest.main(warnings="ignore")
