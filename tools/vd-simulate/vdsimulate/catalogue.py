# SPDX-License-Identifier: MIT
"""What simulated devices are called, and of what make they are."""

PLACES = [
    "Lobby", "Loading dock", "Parking deck P2", "Kühlraum – Küche 🧊", "Stairwell A", "Stairwell B", "Server room",
    "Roof, north", "Roof, south", "Main gate", "Tür Süd", "Empfang", "Büro Müller", "Café ☕", "Cash desk 3",
    "Elevator 1", "Dr. Weiß", "Bike shed 🚲", "Corridor 2.14", "Lager Ä", "Hall of Fame", "Garage \"old\"", "Çay ocağı",
    "Ворота", "倉庫", "Workshop & paint", "Aula", "Fire exit 4", "Meeting room Zürich", "Terrace 🌇",
]

CAMERA_MODELS = ["Dome 4", "Bullet 2", "Corner 1", "PTZ 9", "Panorama 180", "Dome 4 Thermal", "Mini 3"]
CAMERA_VERSIONS = ["4.2.1", "4.2.0", "4.1.7", "5.0.0-rc2", "3.9.12"]
CAMERA_ERRORS = ["", "", "", "", "", "heater failure", "no time server", "storage not reachable"]
OWNERS = ["operator", "security", "Hausverwaltung", "it-service", ""]

ARCHIVES = ["Archive", "Backup", "Recordings", "Archiv Süd", "Cold store ❄", "NVR pool", "Evidence", "Überlauf"]
STORAGE_MODELS = ["Shelf 12", "Shelf 24", "Cube 4", "Rack 48 Pro"]
STORAGE_VERSIONS = ["10.3", "10.2.4", "9.8", "11.0 beta"]
STORAGE_ERRORS = ["", "", "", "", "disk 7 failed", "rebuilding", "fan 2 slow"]
CAPACITIES_TB = [4, 12, 24, 48, 96]

# Name, host, and what else the text of such a thing tells.
OTHERS = [
    ("Office printer", "printer", ["txtvers=1", "ty=Laser 400 series", "note=2nd floor", "pdl=application/pdf"]),
    ("Label printer", "label-printer", ["ty=Label 62", "note="]),
    ("Router", "router", ["path=/admin"]),
    ("Wiki 📚", "wiki", ["path=/wiki", "u=guest"]),
    ("Coffee machine", "coffee", ["path=/", "beans=full", "milk"]),
    ("Wetterstation Dach", "weather", ["path=/now", "unit=°C"]),
    ("Switch, rack 3", "switch", []),
]
