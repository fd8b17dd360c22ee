#!/usr/bin/env python3
"""Writes sales.csv, the demo's sample table: a few thousand orders with text, integers,
decimals, ISO dates and empty cells. Deterministic (fixed seed), so the committed file can be
made again byte for byte: python3 examples/make_sales.py > examples/sales.csv"""
import csv
import datetime
import random
import sys

rng = random.Random(20240131)
regions = ["North", "South", "East", "West", "Central"]
customers = ["Müller GmbH", "Søren & Co", "Café Ñandú", "Acme, Inc.", "Łódź Trading",
             "Zhōu Imports", "O'Neil Ltd", "Björk AB", "Dubois SARL", "Tanaka 株式会社"]
products = [("Widget", 4.5), ("Gadget", 12.99), ("Sprocket", 0.75), ("Gizmo", 149.0),
            ("Doohickey", 23.4), ("Thingamajig", 7.25)]
notes = ["", "", "", "rush order", 'said "urgent"', "deliver to dock 3,\nside entrance",
         "gift wrap"]

out = csv.writer(sys.stdout, lineterminator="\n")
out.writerow(["order_id", "order_date", "region", "customer", "product", "quantity",
              "unit_price", "discount", "ship_date", "note"])
start = datetime.date(2024, 1, 1)
for n in range(3000):
    ordered = start + datetime.timedelta(days=rng.randrange(366))
    product, price = rng.choice(products)
    shipped = "" if rng.random() < 0.08 else (ordered + datetime.timedelta(days=rng.randrange(1, 15))).isoformat()
    discount = "" if rng.random() < 0.6 else f"{rng.choice([0.05, 0.1, 0.15, 0.25]):.2f}"
    out.writerow([10001 + n, ordered.isoformat(), "" if rng.random() < 0.02 else rng.choice(regions),
                  rng.choice(customers), product, rng.randrange(1, 250), f"{price:.2f}",
                  discount, shipped, rng.choice(notes)])
