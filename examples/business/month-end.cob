*> The end of the month: sorts the order lines by customer, prints what each has bought, and enters it as the balance.
identification division.
program-id. month-end.
environment division.
input-output section.
file-control.
    select customers assign "customers" organization indexed access random record key c-number
        alternate record key c-name with duplicates status st.
    select order-lines assign "lines" organization indexed access sequential record key l-key
        alternate record key l-customer with duplicates status st.
    select sorted assign "sort-work".
    select report-file assign "report.txt" organization line sequential status st.
data division.
file section.
fd customers.
copy "customer.cpy".
fd order-lines.
copy "line.cpy".
sd sorted.
01 sorted-line.
    05 s-key pic x(11).
    05 s-customer pic 9(8).
    05 filler pic x(10).
    05 s-amount pic 9(9)v99.
fd report-file.
01 print-line pic x(80).
working-storage section.
01 st pic xx.
    88 fine value "00" "02".
01 doing pic x(30).
01 no-more pic 9 value 0.
01 customer-before pic 9(8) value 0.
01 lines-of-customer pic 9(6) value 0.
01 total-of-customer pic 9(9)v99 value 0.
01 all-lines pic 9(8) value 0.
01 grand-total pic 9(11)v99 value 0.
01 rows-on-page pic 99 value 99.
01 page-number pic 9(5) value 0.
01 heading-row.
    05 pic x(12) value "customer".
    05 pic x(32) value "name".
    05 pic x(10) value " lines".
    05 pic x(18) value "total    page".
    05 h-page pic zzzz9.
01 customer-row.
    05 r-customer pic 9(8)b(4).
    05 r-name pic x(30)bb.
    05 r-lines pic zzz,zz9b(3).
    05 r-total pic zzz,zzz,zz9.99.
01 total-row.
    05 pic x(44) value "all".
    05 t-lines pic zz,zzz,zz9.
    05 t-total pic zz,zzz,zzz,zz9.99.
procedure division.
    move "opening the files" to doing
    open i-o customers perform stop-unless-fine
    open output report-file perform stop-unless-fine
    sort sorted on ascending key s-customer s-key using order-lines output procedure print-report
    if sort-return not = 0
        display "month-end: the order lines cannot be sorted" upon stderr
        stop run returning 1
    end-if
    move all-lines to t-lines
    move grand-total to t-total
    write print-line from total-row after advancing 2 lines
    close customers report-file
    display all-lines " lines, " page-number " pages, total " t-total
    stop run.

print-report.
    perform until no-more = 1
        return sorted at end move 1 to no-more end-return
        if no-more = 1 or s-customer not = customer-before
            if lines-of-customer > 0 perform customer-is-done end-if
            move s-customer to customer-before
            move 0 to lines-of-customer total-of-customer
        end-if
        if no-more = 0
            add 1 to lines-of-customer
            add s-amount to total-of-customer
        end-if
    end-perform.

customer-is-done.
    move "reading a customer" to doing
    move customer-before to c-number
    read customers perform stop-unless-fine
    move "entering a balance" to doing
    add total-of-customer to c-balance
    rewrite customer perform stop-unless-fine
    add lines-of-customer to all-lines
    add total-of-customer to grand-total
    if rows-on-page > 55 perform begin-page end-if
    move c-number to r-customer
    move c-name to r-name
    move lines-of-customer to r-lines
    move total-of-customer to r-total
    write print-line from customer-row after advancing 1 line
    add 1 to rows-on-page.

begin-page.
    add 1 to page-number
    move page-number to h-page
    write print-line from heading-row after advancing page
    move spaces to print-line
    write print-line after advancing 1 line
    move 0 to rows-on-page.

stop-unless-fine.
    if not fine
        display "month-end: " function trim(doing) ": status " st upon stderr
        stop run returning 1
    end-if.
