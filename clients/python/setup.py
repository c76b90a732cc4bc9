# Plain setup.py (no pyproject.toml) on purpose: pip then builds with the setuptools already
# installed instead of fetching one, so "pip install ./clients/python" works offline.
from setuptools import setup

setup(
    name="vr480",
    version="1.0.0",
    description="Client, recorder and broker subscriber for the vr480 interrogator's instrument server",
    long_description=open("README.md", encoding="utf-8").read(),
    python_requires=">=3.9",
    packages=["vr480"],
    extras_require={"fast": ["numpy"], "hdf5": ["h5py"], "mqtt": ["paho-mqtt"]},
    entry_points={"console_scripts": ["vr480-record = vr480.recorder:main"]},
)
