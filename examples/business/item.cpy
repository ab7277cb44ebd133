*> An item on stock, as the file items has it.
01 item.
    05 i-number pic 9(6).
    05 i-name pic x(30).
    05 i-price pic 9(5)v99.
    05 i-stock pic 9(9).
