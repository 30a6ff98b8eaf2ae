# Scatter: one barcoder job per shard, into SAVE_PATH/.shards/<shard>; the
# Snakefile's merge_shards gathers them. The shard folders are temporary:
# Snakemake removes them once the merge has succeeded and keeps the finished
# ones when a shard fails, so that the next run only redoes what is missing.


rule barcode_shard:
    input:
        lambda wildcards: SHARDS[wildcards.shard],
    output:
        temp(directory(os.path.join(SHARD_ROOT, "{shard}"))),
    log:
        os.path.join(LOGS, "{shard}.log"),
    params:
        script=os.path.join(workflow.basedir, "scripts", "run_shard.sh"),
        barcoder=BARCODER,
        options=OPTIONS,
    threads: THREADS
    shell:
        "bash {params.script:q} {params.barcoder:q} {output:q} {log:q} {threads} {params.options:q} -- {input:q}"

