*> A line of an order, as the file lines has it.
01 order-line.
    05 l-key.
        10 l-order pic 9(8).
        10 l-line pic 9(3).
    05 l-customer pic 9(8).
    05 l-item pic 9(6).
    05 l-quantity pic 9(4).
    05 l-amount pic 9(9)v99.
