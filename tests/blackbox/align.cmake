# black-box tests: align
