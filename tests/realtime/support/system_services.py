#!/usr/bin/env python3
"""Plays the system services that sockets watch, logind and NetworkManager,
from python3-dbusmock's templates, on the private bus of the dbus-run-session
this runs under (standing in for the system bus).

    dbus-run-session -- python3 system_services.py

Prints "BUS <address>" once both services are on the bus, then takes one
command a line from standard input and answers "ok" once it is done:
    sleep | resume       logind's PrepareForSleep(true | false)
    connectivity N       NetworkManager's Connectivity (1 none, 4 full)
    primary PATH         NetworkManager's PrimaryConnection
    nm-stop              NetworkManager leaves the bus
It ends when its standard input closes."""
import os
import subprocess
import sys
import time

import dbus

MOCK = 'org.freedesktop.DBus.Mock'
NM = 'org.freedesktop.NetworkManager'

address = os.environ['DBUS_SESSION_BUS_ADDRESS']
environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)
mocks = [subprocess.Popen([sys.executable, '-m', 'dbusmock', '--system', '--template', template],
                          env=environment, stdout=subprocess.DEVNULL)
         for template in ('logind', 'networkmanager')]
bus = dbus.bus.BusConnection(address)
for name in ('org.freedesktop.login1', NM):
    for _ in range(1000):
        if bus.name_has_owner(name):
            break
        time.sleep(0.01)
    else:
        sys.exit(f'{name} did not come up')
login = bus.get_object('org.freedesktop.login1', '/org/freedesktop/login1')
manager = bus.get_object(NM, '/org/freedesktop/NetworkManager')
# The template leaves it out.
manager.AddProperty(NM, 'PrimaryConnection', dbus.ObjectPath('/org/freedesktop/NetworkManager/ActiveConnection/1'),
                    dbus_interface=MOCK)
print('BUS', address, flush=True)

for line in sys.stdin:
    words = line.split()
    if not words:
        continue
    if words[0] in ('sleep', 'resume'):
        login.EmitSignal('org.freedesktop.login1.Manager', 'PrepareForSleep', 'b',
                         [dbus.Boolean(words[0] == 'sleep')], dbus_interface=MOCK)
    elif words[0] == 'connectivity':
        # The template signals on NetworkManager's own interface, as older versions do.
        manager.SetConnectivity(dbus.UInt32(int(words[1])), dbus_interface=MOCK)
    elif words[0] == 'primary':
        # org.freedesktop.DBus.Properties.PropertiesChanged, as current versions signal.
        path = dbus.ObjectPath(words[1], variant_level=1)
        manager.Set(NM, 'PrimaryConnection', path, dbus_interface='org.freedesktop.DBus.Properties')
        manager.EmitSignal('org.freedesktop.DBus.Properties', 'PropertiesChanged', 'sa{sv}as',
                           [NM, dbus.Dictionary({'PrimaryConnection': path}, signature='sv'),
                            dbus.Array([], signature='s')], dbus_interface=MOCK)
    elif words[0] == 'nm-stop':
        mocks[1].terminate()
        mocks[1].wait()
        while bus.name_has_owner(NM):
            time.sleep(0.01)
    print('ok', flush=True)

for mock in mocks:
    mock.terminate()
    mock.wait()
