*> Takes the orders of a text file: each gets the next number, each line is taken from the stock and stored. Several of
*> these programs may run at once. Usage: orders TEXT
identification division.
program-id. orders.
environment division.
input-output section.
file-control.
    select order-text assign text-name organization line sequential status st.
    select items assign "items" organization indexed access random record key i-number
        alternate record key i-name with duplicates lock mode manual status st.
    select order-lines assign "lines" organization indexed access random record key l-key
        alternate record key l-customer with duplicates lock mode manual status st.
    select numbering assign "numbering" organization relative access random relative key which-number
        lock mode manual status st.
data division.
file section.
fd order-text.
01 order-row.
    05 o-reference pic 9(8).
    05 o-customer pic 9(8).
    05 o-item pic 9(6).
    05 o-quantity pic 9(4).
fd items.
copy "item.cpy".
fd order-lines.
copy "line.cpy".
fd numbering.
01 next-number pic 9(8).
working-storage section.
01 st pic xx.
    88 fine value "00" "02".
01 doing pic x(30).
01 text-name pic x(80).
01 which-number pic 9(4) value 1.
01 reference-before pic 9(8) value 0.
01 order-count pic 9(7) value 0.
01 line-count pic 9(7) value 0.
procedure division.
    accept text-name from command-line
    move "opening the files" to doing
    open input order-text perform stop-unless-fine
    open i-o items order-lines numbering perform stop-unless-fine
    perform until exit
        read order-text at end exit perform end-read
        perform stop-unless-fine
        if o-reference not = reference-before perform begin-order end-if
        perform take-line
    end-perform
    close order-text items order-lines numbering
    display order-count " orders, " line-count " lines"
    stop run.

begin-order.
    move "taking a number" to doing
    read numbering with wait perform stop-unless-fine
    move next-number to l-order
    add 1 to next-number
    rewrite next-number perform stop-unless-fine
    unlock numbering
    move 0 to l-line
    move o-reference to reference-before
    add 1 to order-count.

take-line.
    move "taking from the stock" to doing
    move o-item to i-number
    read items with wait perform stop-unless-fine
    subtract o-quantity from i-stock
    rewrite item perform stop-unless-fine
    unlock items
    move "storing a line" to doing
    add 1 to l-line
    move o-customer to l-customer
    move o-item to l-item
    move o-quantity to l-quantity
    multiply i-price by o-quantity giving l-amount
    write order-line perform stop-unless-fine
    add 1 to line-count.

stop-unless-fine.
    if not fine
        display "orders: " function trim(doing) ": status " st upon stderr
        stop run returning 1
    end-if.
