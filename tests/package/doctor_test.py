#!/usr/bin/python3
"""Builds the doctor from a published package alone, on a path with a space, as
somebody does who has an application and not the repository."""

import argparse
import pathlib

import tool


def test():
    parser = argparse.ArgumentParser()
    parser.add_argument('--work', type=pathlib.Path, required=True)
    arguments = parser.parse_args()

    work = tool.fresh(arguments.work)
    package, _ = tool.publish(work / 'pub cache')
    build = work / 'build'
    tool.run('cmake', '-G', 'Ninja', '-S', package / 'doctor', '-B', build)
    output = tool.run('cmake', '--build', build)
    tool.check('warning:' not in output, f'the build warns:\n{output}')
    output = tool.run(build / 'lumso_doctor', '--help')
    tool.check(output.startswith('Usage: lumso_doctor'), f'it says:\n{output}')


tool.main(test)
