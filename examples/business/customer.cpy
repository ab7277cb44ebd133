*> A customer, as the file customers has it.
01 customer.
    05 c-number pic 9(8).
    05 c-name pic x(30).
    05 c-town pic x(20).
    05 c-balance pic 9(9)v99.
