"""pyserial in the guest: the tool users pick instead, on the same ports.

  pyserial_peer.py list DEVICE=SERIAL...  pyserial lists each DEVICE with SERIAL
  pyserial_peer.py echo DEVICE            64 KiB written come back intact
"""

import os
import sys

import serial
import serial.tools.list_ports


def list_ports(expected):
    found = {port.device: port.serial_number for port in serial.tools.list_ports.comports()}
    for pair in expected:
        device, serial_number = pair.split("=", 1)
        if found.get(device) != serial_number:
            sys.exit(f"pyserial lists {found}, expected {device} with {serial_number}")


def echo(device):
    data = os.urandom(65536)
    with serial.Serial(device, 115200, timeout=10) as port:
        port.reset_input_buffer()
        port.write(data)
        back = port.read(len(data))
    if back != data:
        sys.exit(f"pyserial read {len(back)} of {len(data)} bytes back, intact: {back == data[:len(back)]}")


if __name__ == "__main__":
    if sys.argv[1] == "list":
        list_ports(sys.argv[2:])
    else:
        echo(sys.argv[2])
