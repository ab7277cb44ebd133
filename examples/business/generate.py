#!/usr/bin/env python3
"""Writes what a business has before the programs run: customers.txt, items.txt, and orders of a month in two halves.

Usage: generate.py CUSTOMERS LINES. The same numbers give the same files.
"""
import random
import sys

TOWNS = ["Aldwick", "Brinhaven", "Corley", "Dunmoor", "Eastfold", "Fernhill", "Garrow", "Holmbury"]
FIRST = ["Ada", "Ben", "Carla", "Dora", "Emil", "Frieda", "Georg", "Hanna", "Ivo", "Jana", "Karl", "Lena"]
LAST = ["Abend", "Berg", "Clausen", "Dorn", "Ebert", "Falk", "Graf", "Hahn", "Imhof", "Jung", "Kern", "Lang", "Moser"]


def main():
    customers, lines = int(sys.argv[1]), int(sys.argv[2])
    items = max(10, customers // 20)
    chance = random.Random(customers * 1000003 + lines)
    with open("customers.txt", "w") as out:
        for number in range(1, customers + 1):
            name = f"{chance.choice(LAST)} {chance.choice(FIRST)} {chance.randrange(1, 100):02}"
            out.write(f"{number:08}{name:30}{chance.choice(TOWNS):20}\n")
    with open("items.txt", "w") as out:
        for number in range(1, items + 1):
            out.write(f"{number:06}{'item ' + str(number % 97):30}{chance.randrange(10, 99999):07}{10**8:09}\n")
    reference = 0
    for half, count in (("orders-1.txt", lines // 2), ("orders-2.txt", lines - lines // 2)):
        with open(half, "w") as out:
            left = count
            while left > 0:
                reference += 1
                customer = chance.randrange(1, customers + 1)
                for _ in range(min(left, chance.randrange(1, 10))):
                    item, quantity = chance.randrange(1, items + 1), chance.randrange(1, 50)
                    out.write(f"{reference:08}{customer:08}{item:06}{quantity:04}\n")
                    left -= 1


main()
