#!/usr/bin/env python3
"""Compares what the programs have left with what the text files alone say: every balance, every stock, the grand total.

Usage: verify.py CUSTOMERS ITEMS LINES, the records of the files as vfsctl scan prints them, and report.txt beside them.
"""
import collections
import sys


def rows(path):
    with open(path) as text:
        return text.read().splitlines()


def main():
    customers, items, lines = (rows(path) for path in sys.argv[1:4])
    price = {row[:6]: int(row[36:43]) for row in rows("items.txt")}
    stock = {row[:6]: int(row[43:52]) for row in rows("items.txt")}
    balance = collections.Counter()
    ordered = collections.Counter()
    for row in rows("orders-1.txt") + rows("orders-2.txt"):
        customer, item, quantity = row[8:16], row[16:22], int(row[22:26])
        balance[customer] += price[item] * quantity
        stock[item] -= quantity
        ordered[customer, item, quantity] += 1
    wrong = 0

    def expect(what, found, wanted):
        nonlocal wrong
        if found != wanted:
            wrong += 1
            print(f"wrong: {what}: {found}, {wanted} is right")

    expect("customers", len(customers), len(rows("customers.txt")))
    for row in customers:
        expect(f"balance of customer {row[:8]}", int(row[58:69]), balance[row[:8]])
    for row in items:
        expect(f"stock of item {row[:6]}", int(row[43:52]), stock[row[:6]])
    kept = collections.Counter((row[11:19], row[19:25], int(row[25:29])) for row in lines)
    expect("order lines", kept, ordered) if kept != ordered else None
    numbers = sorted({int(row[:8]) for row in lines})
    expect("order numbers without a gap", numbers, list(range(1, len(numbers) + 1)))
    total = next(row for row in reversed(rows("report.txt")) if row.startswith("all"))
    grand = sum(balance.values())
    expect("grand total of the report", total[54:].strip(), f"{grand // 100:,}.{grand % 100:02}")
    printed = {row[:8]: row[44:].split() for row in rows("report.txt") if row[:8].isdigit()}
    for customer, amount in balance.items():
        expect(f"report on customer {customer}", printed.get(customer, ["", ""])[-1], f"{amount // 100:,}.{amount % 100:02}")
    print(f"{len(customers)} balances, {len(items)} stocks, {len(lines)} lines, {len(numbers)} orders: {wrong} wrong")
    sys.exit(wrong != 0)


main()
