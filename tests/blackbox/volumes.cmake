# black-box tests: volumes
